/*
 * The one netlink layer of the Linux backend. Every message NetCore reads
 * from the kernel (routing and generic families; dump replies, single
 * replies and events) passes through here, so bounds, senders, ports and
 * sequence numbers are checked in one place:
 * - attributes: one parser files an attribute area into a table by type, and
 *   typed getters check each attribute's size before anything is read;
 * - requests: one writer that refuses to write past its buffer;
 * - sockets: one loop for dumps, one for single requests, one for events.
 *
 * Contract: as the shim's (1 success, 0 failure; outputs written only on
 * success). A socket belongs to one thread at a time; nothing is global.
 */
#ifndef NETVANE_NETCORE_SHIM_LINUX_NV_LINUX_NETLINK_H
#define NETVANE_NETCORE_SHIM_LINUX_NV_LINUX_NETLINK_H

#include <linux/netlink.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* --- Attributes ------------------------------------------------------ */

/* Files the attributes of [data, data + length) into table[0..max] by type
 * (the nested and byte-order bits masked off); the first of a type wins and
 * types past max are passed over. 1 when every attribute lay whole in the
 * area; 0 when one claimed more than was left, and the table then holds
 * those before it. */
int nv_nl_parse(const struct nlattr** table, uint16_t max, const void* data, size_t length);
/* The attributes after a message's family header of `header` bytes; 0 with
 * an empty table for a message shorter than its header. */
int nv_nl_parse_message(const struct nlattr** table, uint16_t max, const struct nlmsghdr* message, size_t header);
/* The attributes nested in `nest`; an empty table for none. */
int nv_nl_parse_nested(const struct nlattr** table, uint16_t max, const struct nlattr* nest);
/* The family header of a message when the message holds `size` bytes of
 * it, or NULL. */
const void* nv_nl_header(const struct nlmsghdr* message, size_t size);

/* The getters take the table's entry as it is: a missing attribute (NULL)
 * fails like one of the wrong size. The sized ones want the payload to be
 * exactly of their type. Inline: a reading calls them for every attribute
 * of hundreds of messages. */
static inline const void* nv_nl_data(const struct nlattr* attribute) {
    return attribute ? (const unsigned char*)attribute + NLA_HDRLEN : NULL;
}
static inline size_t nv_nl_length(const struct nlattr* attribute) {
    return attribute ? (size_t)attribute->nla_len - NLA_HDRLEN : 0;
}
/* Exactly `size` bytes. */
static inline int nv_nl_bytes(const struct nlattr* attribute, void* out, size_t size) {
    if (!attribute || nv_nl_length(attribute) != size) return 0;
    memcpy(out, nv_nl_data(attribute), size);
    return 1;
}
static inline int nv_nl_u8(const struct nlattr* a, uint8_t* out) { return nv_nl_bytes(a, out, sizeof *out); }
static inline int nv_nl_u16(const struct nlattr* a, uint16_t* out) { return nv_nl_bytes(a, out, sizeof *out); }
static inline int nv_nl_u32(const struct nlattr* a, uint32_t* out) { return nv_nl_bytes(a, out, sizeof *out); }
static inline int nv_nl_s32(const struct nlattr* a, int32_t* out) { return nv_nl_bytes(a, out, sizeof *out); }
static inline int nv_nl_u64(const struct nlattr* a, uint64_t* out) { return nv_nl_bytes(a, out, sizeof *out); }
/* The text up to the first zero byte (or the payload's end), terminated;
 * fails when it does not fit in `size` bytes with its terminator. */
int nv_nl_string(const struct nlattr* attribute, char* out, size_t size);
/* The text in place and its length (up to the first zero byte), or NULL. */
const char* nv_nl_text(const struct nlattr* attribute, size_t* length);
/* Element `index` of an array of 32-bit signed integers. */
int nv_nl_s32_at(const struct nlattr* attribute, size_t index, int32_t* out);

/* --- Requests -------------------------------------------------------- */

/* Room for every request we send (the largest carries a name and a nest). */
#define NV_NL_REQUEST_SIZE 256
typedef struct nv_nl_request {
    union {
        struct nlmsghdr header;
        unsigned char bytes[NV_NL_REQUEST_SIZE];
    } message;
    int overflow; /* a write did not fit: the request is not sent */
} nv_nl_request_t;

/* Starts a request of `type` with a zeroed family header of `header` bytes,
 * returned for the caller to fill (NULL when it does not fit). The flags
 * beyond NLM_F_REQUEST (and NLM_F_DUMP, which the dump loop adds) are the
 * caller's; sequence and port are the socket's. */
void* nv_nl_request(nv_nl_request_t* request, uint16_t type, uint16_t flags, size_t header);
/* Each appends one attribute, or leaves the request unchanged and marks it
 * overflowed when it would pass the buffer's end. */
int nv_nl_put(nv_nl_request_t* request, uint16_t type, const void* data, size_t length);
int nv_nl_put_u32(nv_nl_request_t* request, uint16_t type, uint32_t value);
int nv_nl_put_string(nv_nl_request_t* request, uint16_t type, const char* text);
/* A nest: attributes put between start and end are its payload. Start
 * returns the nest's place (0 when it did not fit). */
size_t nv_nl_nest_start(nv_nl_request_t* request, uint16_t type);
void nv_nl_nest_end(nv_nl_request_t* request, size_t start);

/* --- Sockets --------------------------------------------------------- */

typedef struct nv_nl_socket nv_nl_socket_t;

/* A netlink socket of `protocol` (close-on-exec), or NULL with errno set.
 * The kernel binds it with its first request (or its first group). */
nv_nl_socket_t* nv_nl_open(int protocol);
/* Closes and frees; NULL is fine. */
void nv_nl_close(nv_nl_socket_t* socket);
static inline void nv_nl_close_ref(nv_nl_socket_t** socket) { nv_nl_close(*socket); }
#define NV_AUTO_NETLINK __attribute__((cleanup(nv_nl_close_ref)))
int nv_nl_fd(const nv_nl_socket_t* socket);
/* Joins a multicast group (RTNLGRP_*) to receive its events. */
int nv_nl_join(nv_nl_socket_t* socket, unsigned group);

/* What a socket sends and receives through: the kernel's socket, or a test's
 * stand-in. receive works as recvmsg with MSG_TRUNC (the datagram's whole
 * length, even past size) and reports the sender's port (0: the kernel);
 * flags may hold MSG_DONTWAIT. Both return -1 with errno on failure. */
typedef struct nv_nl_transport {
    ssize_t (*send)(void* context, const void* data, size_t length);
    ssize_t (*receive)(void* context, void* buffer, size_t size, int flags, uint32_t* sender);
} nv_nl_transport_t;
/* A socket over another transport, with `port` as its own port id. */
nv_nl_socket_t* nv_nl_open_transport(const nv_nl_transport_t* transport, void* context, uint32_t port);

typedef void (*nv_nl_visit_t)(const struct nlmsghdr* message, void* context);

/* One dump: the reply messages of `type` go to visit. A reply counts only
 * when it comes from the kernel, to this socket's port, with this request's
 * sequence number; an error reply, a failed end of dump or a datagram that
 * did not fit ends it as failed. While the kernel flags an attempt as
 * interrupted (the table changed under it, so an entry may be missing or
 * repeated), restart (when given) is called and the dump sent again, up to
 * `attempts` in all. */
typedef struct nv_nl_dump {
    uint16_t type;
    nv_nl_visit_t visit;
    void (*restart)(void* context);
    void* context;
    int attempts;
    int interrupted; /* out: the last attempt was interrupted too */
    int error;       /* out: the errno of a failure */
} nv_nl_dump_t;
/* 1 when a dump ran to its end (see `interrupted`), 0 when it failed. */
int nv_nl_dump(nv_nl_socket_t* socket, nv_nl_request_t* request, nv_nl_dump_t* dump);

/* Sends one request and waits for its reply of `type`: the reply, valid
 * until the socket's next use, or NULL with errno (the kernel's refusal,
 * EMSGSIZE for a reply past the socket's buffer, EPROTO for another type or
 * a malformed reply). */
const struct nlmsghdr* nv_nl_exchange(nv_nl_socket_t* socket, nv_nl_request_t* request, uint16_t type);

/* Hands every event queued on a subscribed socket to visit, without
 * waiting; messages from others than the kernel are passed over. 0 when
 * the kernel dropped events since the last call (the queue overran), so
 * the caller must read afresh what it tracks; 1 otherwise. */
int nv_nl_drain(nv_nl_socket_t* socket, nv_nl_visit_t visit, void* context);

#ifdef __cplusplus
}

#include <memory>

namespace netvane {
struct NetlinkCloser {
    void operator()(nv_nl_socket_t* socket) const { nv_nl_close(socket); }
};
using NetlinkSocket = std::unique_ptr<nv_nl_socket_t, NetlinkCloser>;
}  // namespace netvane
#endif

#endif
