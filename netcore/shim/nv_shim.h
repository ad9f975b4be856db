/*
 * The kernel interface shim: plain C functions over the interface requests,
 * counters, link-level addresses and process information that the higher
 * layers cannot express conveniently.
 *
 * Contract shared by every function:
 * - 1 means success and 0 failure (or a count where stated); an output is
 *   written only on success, so callers pre-set their out-values.
 * - Sockets are the caller's: nothing here opens or closes one. Interface
 *   names are copied into requests bounded to 16 bytes with the terminator.
 * - No state, no allocation that outlives a call, no logging; every function
 *   is reentrant.
 *
 * The media-word helpers are portable and built everywhere; the kernel
 * requests come from the per-OS implementation in the linux/ or darwin/
 * subfolder.
 */
#ifndef NETVANE_NETCORE_SHIM_NV_SHIM_H
#define NETVANE_NETCORE_SHIM_NV_SHIM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct sockaddr_in6;
struct sockaddr_dl;

/* Media words as the kernel reports them; see NV_MEDIA_STATUS_* for status. */
typedef struct nv_media {
    int32_t current; /* the medium selected */
    int32_t active;  /* the medium in effect */
    int32_t status;  /* status bits */
} nv_media_t;

#define NV_MEDIA_STATUS_VALID 0x1
#define NV_MEDIA_STATUS_ACTIVE 0x2

/* Cumulative 64-bit interface counters plus line rate, MTU and ifType. */
typedef struct nv_ifdata {
    uint64_t ibytes;
    uint64_t obytes;
    uint64_t ipackets;
    uint64_t opackets;
    uint64_t ierrors;
    uint64_t oerrors;
    uint64_t imcasts;
    uint64_t omcasts;
    uint64_t collisions;
    uint64_t iqdrops;
    uint64_t baudrate; /* bits per second */
    uint32_t mtu;
    uint8_t type; /* IANA ifType */
} nv_ifdata_t;

/* nv_utun_owner_t, one tunnel and the process holding it, is laid out by
 * each platform: the header of that name in its folder. */
#include "nv_utun_owner.h"

/* --- Portable -------------------------------------------------------- */

/* status & 1 */
int nv_media_status_valid(int status);
/* 1 when the link-active bit is set, else 0 */
int nv_media_status_active(int status);
/* Text of a media word: the subtype name, then the matching option names in
 * angle brackets ("1000baseT <full-duplex,flow-control>"), or "<unknown
 * type>" / "<unknown subtype>". Bounded by size and always terminated; with
 * size 0 nothing is written. */
void nv_media_word_string(int word, char* dest, size_t size);

/* --- Kernel requests (per-OS implementation) -------------------------- */

/* Fails also when the interface reports no active medium (active word 0). */
int nv_get_media(int sock, const char* ifname, nv_media_t* out);
/* Fails when the index now names another interface than ifname. */
int nv_get_ifdata(unsigned int ifindex, const char* ifname, nv_ifdata_t* out);
int nv_get_mtu(int sock, const char* ifname, uint32_t* out);
/* The capabilities currently enabled. */
int nv_get_curcap(int sock, const char* ifname, uint32_t* out);
int nv_get_functional_type(int sock, const char* ifname, uint32_t* out);
/* sock must be the AF_INET6 socket. */
int nv_get_nd6_flags(int sock, const char* ifname, uint32_t* out);
/* sock must be the AF_INET6 socket; fails without a request for a null or
 * non-IPv6 address. */
int nv_get_in6_addr_flags(int sock, const char* ifname, const struct sockaddr_in6* addr, uint32_t* out);

/* The link-level socket address is the platform's own: sockaddr_dl where it
 * exists, sockaddr_ll (family AF_PACKET) on Linux, passed as this type.
 * Copies the link-layer address and returns its length; 0 (nothing copied)
 * for a null or non-link address, an empty address or too small a buffer. */
int nv_sockaddr_dl_lladdr(const struct sockaddr_dl* sdl, uint8_t* out, size_t capacity);
/* 0 for a null or non-link address. */
uint16_t nv_sockaddr_dl_index(const struct sockaddr_dl* sdl);
uint8_t nv_sockaddr_dl_type(const struct sockaddr_dl* sdl);

/* Writes at most max records and returns how many it wrote. */
int nv_utun_owners(nv_utun_owner_t* out, int max);

#ifdef __cplusplus
}
#endif

#endif
