/* The one netlink layer: attributes, requests and the three loops. */
#include "netcore/shim/linux/nv_linux_netlink.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "netcore/shim/nv_cleanup.h"

/* Room for the largest batch of dump messages or events the kernel sends
 * in one datagram (it caps a dump's at 32 KiB), and for one link message
 * with every attribute the kernel adds by default. */
#define NV_NL_BUFFER_SIZE 65536

struct nv_nl_socket {
    int fd; /* -1 for a test's transport */
    int bound;     /* the port is known */
    uint32_t port;
    uint32_t sequence; /* the last request's; each request takes the next */
    nv_nl_transport_t transport;
    void* context;
    unsigned char* buffer; /* NV_NL_BUFFER_SIZE bytes, aligned for messages */
};

/* --- Attributes ------------------------------------------------------ */

int nv_nl_parse(const struct nlattr** table, uint16_t max, const void* data, size_t length) {
    memset(table, 0, ((size_t)max + 1) * sizeof *table);
    const unsigned char* bytes = data;
    size_t offset = 0;
    while (bytes && offset < length && length - offset >= NLA_HDRLEN) {
        const struct nlattr* attribute = (const struct nlattr*)(bytes + offset);
        if (attribute->nla_len < NLA_HDRLEN || attribute->nla_len > length - offset) return 0;
        const uint16_t type = attribute->nla_type & NLA_TYPE_MASK;
        if (type <= max && !table[type]) table[type] = attribute;
        offset += NLA_ALIGN(attribute->nla_len);
    }
    return 1;
}

const void* nv_nl_header(const struct nlmsghdr* message, size_t size) {
    if (!message || message->nlmsg_len < NLMSG_LENGTH(size)) return NULL;
    return NLMSG_DATA(message);
}

int nv_nl_parse_message(const struct nlattr** table, uint16_t max, const struct nlmsghdr* message, size_t header) {
    const size_t start = NLMSG_LENGTH(NLMSG_ALIGN(header));
    if (!message || message->nlmsg_len < start) {
        memset(table, 0, ((size_t)max + 1) * sizeof *table);
        return 0;
    }
    return nv_nl_parse(table, max, (const unsigned char*)message + start, message->nlmsg_len - start);
}

int nv_nl_parse_nested(const struct nlattr** table, uint16_t max, const struct nlattr* nest) {
    return nv_nl_parse(table, max, nv_nl_data(nest), nv_nl_length(nest));
}

const char* nv_nl_text(const struct nlattr* attribute, size_t* length) {
    if (!attribute) return NULL;
    const char* text = nv_nl_data(attribute);
    *length = strnlen(text, nv_nl_length(attribute));
    return text;
}

int nv_nl_string(const struct nlattr* attribute, char* out, size_t size) {
    size_t length = 0;
    const char* text = nv_nl_text(attribute, &length);
    if (!text || length >= size) return 0;
    memcpy(out, text, length);
    out[length] = '\0';
    return 1;
}

int nv_nl_s32_at(const struct nlattr* attribute, size_t index, int32_t* out) {
    const size_t count = nv_nl_length(attribute) / sizeof *out;
    if (!attribute || index >= count) return 0;
    memcpy(out, (const unsigned char*)nv_nl_data(attribute) + index * sizeof *out, sizeof *out);
    return 1;
}

/* --- Requests -------------------------------------------------------- */

void* nv_nl_request(nv_nl_request_t* request, uint16_t type, uint16_t flags, size_t header) {
    memset(request, 0, sizeof *request);
    if (NLMSG_SPACE(header) > sizeof request->message.bytes) {
        request->overflow = 1;
        return NULL;
    }
    request->message.header.nlmsg_len = (uint32_t)NLMSG_LENGTH(header);
    request->message.header.nlmsg_type = type;
    request->message.header.nlmsg_flags = (uint16_t)(flags | NLM_F_REQUEST);
    return NLMSG_DATA(&request->message.header);
}

int nv_nl_put(nv_nl_request_t* request, uint16_t type, const void* data, size_t length) {
    const size_t at = NLMSG_ALIGN(request->message.header.nlmsg_len);
    if (request->overflow || length > UINT16_MAX - NLA_HDRLEN || at > sizeof request->message.bytes ||
        NLA_ALIGN(NLA_HDRLEN + length) > sizeof request->message.bytes - at) {
        request->overflow = 1;
        return 0;
    }
    struct nlattr* attribute = (struct nlattr*)(request->message.bytes + at);
    attribute->nla_type = type;
    attribute->nla_len = (uint16_t)(NLA_HDRLEN + length);
    if (length) memcpy(request->message.bytes + at + NLA_HDRLEN, data, length);
    request->message.header.nlmsg_len = (uint32_t)(at + NLA_ALIGN(attribute->nla_len));
    return 1;
}

int nv_nl_put_u32(nv_nl_request_t* request, uint16_t type, uint32_t value) {
    return nv_nl_put(request, type, &value, sizeof value);
}

int nv_nl_put_string(nv_nl_request_t* request, uint16_t type, const char* text) {
    return nv_nl_put(request, type, text, strlen(text) + 1);
}

size_t nv_nl_nest_start(nv_nl_request_t* request, uint16_t type) {
    const size_t at = NLMSG_ALIGN(request->message.header.nlmsg_len);
    return nv_nl_put(request, type | NLA_F_NESTED, NULL, 0) ? at : 0;
}

void nv_nl_nest_end(nv_nl_request_t* request, size_t start) {
    if (request->overflow || start == 0) return;
    struct nlattr* nest = (struct nlattr*)(request->message.bytes + start);
    nest->nla_len = (uint16_t)(request->message.header.nlmsg_len - start);
}

/* --- Sockets --------------------------------------------------------- */

static ssize_t kernel_send(void* context, const void* data, size_t length) {
    const nv_nl_socket_t* socket = context;
    struct sockaddr_nl kernel;
    memset(&kernel, 0, sizeof kernel);
    kernel.nl_family = AF_NETLINK;
    return sendto(socket->fd, data, length, 0, (struct sockaddr*)&kernel, sizeof kernel);
}

static ssize_t kernel_receive(void* context, void* buffer, size_t size, int flags, uint32_t* sender) {
    const nv_nl_socket_t* socket = context;
    struct sockaddr_nl from;
    memset(&from, 0, sizeof from);
    struct iovec vector = {buffer, size};
    struct msghdr header;
    memset(&header, 0, sizeof header);
    header.msg_name = &from;
    header.msg_namelen = sizeof from;
    header.msg_iov = &vector;
    header.msg_iovlen = 1;
    const ssize_t n = recvmsg(socket->fd, &header, flags | MSG_TRUNC);
    /* Only the kernel speaks from port 0; anything else is someone else. */
    *sender = header.msg_namelen == sizeof from && from.nl_family == AF_NETLINK ? from.nl_pid : UINT32_MAX;
    return n;
}

static const nv_nl_transport_t kernel_transport = {kernel_send, kernel_receive};

static nv_nl_socket_t* make_socket(void) {
    nv_nl_socket_t* socket = calloc(1, sizeof *socket);
    if (!socket) return NULL;
    socket->fd = -1;
    if (posix_memalign((void**)&socket->buffer, sizeof(uint64_t), NV_NL_BUFFER_SIZE) != 0) {
        free(socket);
        errno = ENOMEM;
        return NULL;
    }
    return socket;
}

nv_nl_socket_t* nv_nl_open(int protocol) {
    NV_AUTO_CLOSE int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol);
    if (fd < 0) return NULL;
    nv_nl_socket_t* opened = make_socket();
    if (!opened) return NULL;
    opened->fd = nv_take_fd(&fd);
    opened->transport = kernel_transport;
    opened->context = opened;
    return opened;
}

/* The kernel gives an unbound socket its port with its first request; what
 * it is, is asked once, before the first reply is read. */
static int learn_port(nv_nl_socket_t* socket) {
    if (socket->bound) return 1;
    struct sockaddr_nl address;
    memset(&address, 0, sizeof address);
    socklen_t length = sizeof address;
    if (getsockname(socket->fd, (struct sockaddr*)&address, &length) != 0 || length != sizeof address ||
        address.nl_family != AF_NETLINK) {
        return 0;
    }
    socket->port = address.nl_pid;
    socket->bound = 1;
    return 1;
}

nv_nl_socket_t* nv_nl_open_transport(const nv_nl_transport_t* transport, void* context, uint32_t port) {
    if (!transport || !transport->send || !transport->receive) return NULL;
    nv_nl_socket_t* opened = make_socket();
    if (!opened) return NULL;
    opened->port = port;
    opened->bound = 1;
    opened->transport = *transport;
    opened->context = context;
    return opened;
}

void nv_nl_close(nv_nl_socket_t* socket) {
    if (!socket) return;
    nv_close_fd(&socket->fd);
    free(socket->buffer);
    free(socket);
}

int nv_nl_fd(const nv_nl_socket_t* socket) { return socket ? socket->fd : -1; }

int nv_nl_join(nv_nl_socket_t* socket, unsigned group) {
    if (!socket) return 0;
    if (!socket->bound) {
        struct sockaddr_nl address;
        memset(&address, 0, sizeof address);
        address.nl_family = AF_NETLINK;
        if (bind(socket->fd, (struct sockaddr*)&address, sizeof address) != 0 || !learn_port(socket)) return 0;
    }
    return setsockopt(socket->fd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) == 0;
}

/* The next whole message of a datagram, or NULL at its end; *malformed
 * when bytes remain that are no whole message. */
static const struct nlmsghdr* next_message(const unsigned char* data, size_t length, size_t* offset,
                                           int* malformed) {
    if (*offset >= length) return NULL;
    const struct nlmsghdr* message = (const struct nlmsghdr*)(data + *offset);
    if (length - *offset < sizeof *message || message->nlmsg_len < sizeof *message ||
        message->nlmsg_len > length - *offset) {
        *malformed = 1;
        return NULL;
    }
    const size_t step = NLMSG_ALIGN(message->nlmsg_len);
    *offset = step < length - *offset ? *offset + step : length;
    return message;
}

/* The kernel's errors are its negated errnos, none past this. */
#define NV_NL_MAX_ERRNO 4095

/* The errno an error reply or a dump's end carries (0: none); EPROTO when
 * it is too short to carry one or carries no errno the kernel could send. */
static int carried_error(const struct nlmsghdr* message) {
    const int* error = nv_nl_header(message, sizeof(int));
    if (!error) return EPROTO;
    if (*error >= 0) return 0;
    return *error >= -NV_NL_MAX_ERRNO ? -*error : EPROTO;
}

static int send_request(nv_nl_socket_t* socket, nv_nl_request_t* request) {
    if (request->overflow) {
        errno = EMSGSIZE;
        return 0;
    }
    struct nlmsghdr* header = &request->message.header;
    if (++socket->sequence == 0) ++socket->sequence;
    header->nlmsg_seq = socket->sequence;
    header->nlmsg_pid = 0;
    ssize_t sent;
    do {
        sent = socket->transport.send(socket->context, header, header->nlmsg_len);
    } while (sent < 0 && errno == EINTR);
    if (sent != (ssize_t)header->nlmsg_len) {
        if (sent >= 0) errno = EIO;
        return 0;
    }
    return learn_port(socket);
}

/* One datagram from the kernel, whole; its length, or -1 with errno. */
static ssize_t receive_reply(nv_nl_socket_t* socket) {
    for (;;) {
        uint32_t sender = 0;
        const ssize_t n = socket->transport.receive(socket->context, socket->buffer, NV_NL_BUFFER_SIZE, 0, &sender);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return -1;
        if (n == 0) {
            errno = EPROTO;
            return -1;
        }
        if ((size_t)n > NV_NL_BUFFER_SIZE) {
            errno = EMSGSIZE;
            return -1;
        }
        if (sender == 0) return n;
    }
}

static int ours(const nv_nl_socket_t* socket, const struct nlmsghdr* message) {
    return message->nlmsg_pid == socket->port && message->nlmsg_seq == socket->sequence;
}

enum { DUMP_MORE = -1, DUMP_FAILED = 0, DUMP_DONE = 1 };

static int dump_datagram(const nv_nl_socket_t* socket, size_t length, nv_nl_dump_t* dump) {
    size_t offset = 0;
    int malformed = 0;
    for (const struct nlmsghdr* m; (m = next_message(socket->buffer, length, &offset, &malformed)) != NULL;) {
        if (!ours(socket, m)) continue;
        if (m->nlmsg_flags & NLM_F_DUMP_INTR) dump->interrupted = 1;
        switch (m->nlmsg_type) {
        case NLMSG_DONE:
            /* A dump that failed on its way ends with the failure's errno. */
            dump->error = m->nlmsg_len >= NLMSG_LENGTH(sizeof(int)) ? carried_error(m) : 0;
            return dump->error ? DUMP_FAILED : DUMP_DONE;
        case NLMSG_ERROR:
            dump->error = carried_error(m);
            if (dump->error) return DUMP_FAILED;
            break; /* an acknowledgement */
        case NLMSG_NOOP: break;
        case NLMSG_OVERRUN: dump->error = ENOBUFS; return DUMP_FAILED;
        default:
            if (m->nlmsg_type == dump->type) dump->visit(m, dump->context);
            break;
        }
    }
    if (malformed) {
        dump->error = EPROTO;
        return DUMP_FAILED;
    }
    return DUMP_MORE;
}

int nv_nl_dump(nv_nl_socket_t* socket, nv_nl_request_t* request, nv_nl_dump_t* dump) {
    if (!dump) return 0;
    dump->interrupted = 0;
    dump->error = 0;
    if (!socket || !request || !dump->visit) {
        dump->error = EINVAL;
        return 0;
    }
    const int attempts = dump->attempts > 0 ? dump->attempts : 1;
    request->message.header.nlmsg_flags |= NLM_F_REQUEST | NLM_F_DUMP;
    for (int attempt = 1;; ++attempt) {
        if (attempt > 1 && dump->restart) dump->restart(dump->context);
        dump->interrupted = 0;
        if (!send_request(socket, request)) {
            dump->error = errno;
            return 0;
        }
        int state = DUMP_MORE;
        while (state == DUMP_MORE) {
            const ssize_t n = receive_reply(socket);
            if (n < 0) {
                dump->error = errno;
                return 0;
            }
            state = dump_datagram(socket, (size_t)n, dump);
        }
        if (state == DUMP_FAILED) return 0;
        if (!dump->interrupted || attempt >= attempts) return 1;
    }
}

const struct nlmsghdr* nv_nl_exchange(nv_nl_socket_t* socket, nv_nl_request_t* request, uint16_t type) {
    if (!socket || !request) {
        errno = EINVAL;
        return NULL;
    }
    if (!send_request(socket, request)) return NULL;
    for (;;) {
        const ssize_t n = receive_reply(socket);
        if (n < 0) return NULL;
        size_t offset = 0;
        int malformed = 0;
        for (const struct nlmsghdr* m; (m = next_message(socket->buffer, (size_t)n, &offset, &malformed)) != NULL;) {
            /* Replies to earlier requests that were given up on. */
            if (!ours(socket, m)) continue;
            if (m->nlmsg_type == type) return m;
            errno = m->nlmsg_type == NLMSG_ERROR && carried_error(m) ? carried_error(m) : EPROTO;
            return NULL;
        }
        if (malformed) {
            errno = EPROTO;
            return NULL;
        }
    }
}

int nv_nl_drain(nv_nl_socket_t* socket, nv_nl_visit_t visit, void* context) {
    int complete = 1;
    for (;;) {
        uint32_t sender = 0;
        const ssize_t n =
            socket->transport.receive(socket->context, socket->buffer, NV_NL_BUFFER_SIZE, MSG_DONTWAIT, &sender);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == ENOBUFS) {
            complete = 0;
            continue;
        }
        if (n <= 0) break;
        /* A datagram cut short lost events as surely as an overrun. */
        if ((size_t)n > NV_NL_BUFFER_SIZE) {
            complete = 0;
            continue;
        }
        if (sender != 0) continue;
        size_t offset = 0;
        int malformed = 0;
        for (const struct nlmsghdr* m; (m = next_message(socket->buffer, (size_t)n, &offset, &malformed)) != NULL;) {
            visit(m, context);
        }
    }
    return complete;
}
