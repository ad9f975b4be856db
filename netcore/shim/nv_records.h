/*
 * Decisions of the kernel shim that do not depend on the kernel: how a
 * request names its interface, when a media reply counts, which interface MIB
 * record belongs to which name and how its counters map, and how far a
 * link-level address may be read. The OS files copy the kernel's structures
 * into these plain integers and back; everything here runs in the tests of
 * every platform.
 */
#ifndef NETVANE_NETCORE_SHIM_NV_RECORDS_H
#define NETVANE_NETCORE_SHIM_NV_RECORDS_H

#include <stddef.h>
#include <stdint.h>

#include "netcore/shim/nv_shim.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Interface names in requests: 16 bytes with the terminator. */
#define NV_IFNAME_FIELD 16

/* Bounded, zero-filled copy; a longer name is cut to 15 characters. */
void nv_copy_ifname(char dest[NV_IFNAME_FIELD], const char* ifname);

/* A media reply counts only when it names an active medium: virtual
 * interfaces answer the request with an active word of 0. */
int nv_media_from_reply(int32_t current, int32_t active, int32_t status, nv_media_t* out);

/* The generic interface MIB record, field by field as plain integers. The
 * name is the record's fixed 16-byte field, not necessarily terminated. */
typedef struct nv_ifmib_record {
    char name[NV_IFNAME_FIELD];
    uint8_t type;
    uint32_t mtu;
    uint64_t baudrate;
    uint64_t ipackets;
    uint64_t ierrors;
    uint64_t opackets;
    uint64_t oerrors;
    uint64_t collisions;
    uint64_t ibytes;
    uint64_t obytes;
    uint64_t imcasts;
    uint64_t omcasts;
    uint64_t iqdrops;
} nv_ifmib_record_t;

/* Fills out from the record when the record is the named interface's: an
 * index reused by another interface since the caller learnt it must not
 * lend that interface's counters. */
int nv_ifdata_from_mib(const char* ifname, const nv_ifmib_record_t* record, nv_ifdata_t* out);

/* Link-level socket addresses in the BSD layout: length byte, family byte,
 * 16-bit index in host order, type, name length, address length, selector
 * length, then the name and the address in one data field. `link_family` is
 * the platform's AF_LINK. */
#define NV_LINK_DATA_OFFSET 8

/* Copies the address that follows the name and returns its length; 0 with
 * nothing copied for a null address, another family, an empty address, a
 * buffer too small, or lengths that reach past the address's length byte. */
int nv_link_address_copy(const uint8_t* sdl, uint8_t link_family, uint8_t* out, size_t capacity);
/* 0 for a null address or another family. */
unsigned int nv_link_address_index(const uint8_t* sdl, uint8_t link_family);
uint8_t nv_link_address_type(const uint8_t* sdl, uint8_t link_family);

#ifdef __cplusplus
}
#endif

#endif
