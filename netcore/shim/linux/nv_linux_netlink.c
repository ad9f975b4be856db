/* The one parser of link messages; counters and IPv6 address flags through
 * single (non-dump) rtnetlink requests, each on a socket of its own that
 * lives only for the call; and the dump loop of callers that read every
 * interface at once. */
#include <errno.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>
/* After the C library's address headers: the kernel's IPv6 header then
 * leaves their definitions alone. */
#include <linux/ethtool.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/ipv6.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include "netcore/shim/linux/nv_linux.h"
#include "netcore/shim/nv_records.h"
#include "netcore/shim/nv_shim.h"

/* Room for one link message with every attribute the kernel adds by default,
 * and for the largest batch of dump messages the kernel sends at once. */
#define NV_NETLINK_REPLY_SIZE 65536

int nv_linux_netlink_socket(void) { return socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE); }

int nv_linux_netlink_exchange(int fd, struct nlmsghdr* request, uint16_t type, unsigned char* buf, size_t size) {
    if (fd < 0) return -1;
    struct sockaddr_nl kernel;
    memset(&kernel, 0, sizeof kernel);
    kernel.nl_family = AF_NETLINK;
    int result = -1;
    if (sendto(fd, request, request->nlmsg_len, 0, (struct sockaddr*)&kernel, sizeof kernel) ==
        (ssize_t)request->nlmsg_len) {
        for (;;) {
            ssize_t n = recv(fd, buf, size, MSG_TRUNC);
            if (n < 0 && errno == EINTR) continue;
            if (n < (ssize_t)sizeof(struct nlmsghdr) || (size_t)n > size) break;
            struct nlmsghdr* reply = (struct nlmsghdr*)buf;
            if (!NLMSG_OK(reply, (size_t)n)) break;
            if (reply->nlmsg_seq != request->nlmsg_seq) continue;
            if (reply->nlmsg_type == type) result = (int)reply->nlmsg_len;
            break;
        }
    }
    return result;
}

/* A single (non-dump) request header; the payload follows it. */
static void start_request(struct nlmsghdr* header, uint16_t type, size_t payload) {
    header->nlmsg_len = NLMSG_LENGTH(payload);
    header->nlmsg_type = type;
    header->nlmsg_flags = NLM_F_REQUEST;
    header->nlmsg_seq = 1;
}

static void put_attribute(struct nlmsghdr* message, uint16_t type, const void* data, size_t length) {
    struct rtattr* attribute = (struct rtattr*)((unsigned char*)message + NLMSG_ALIGN(message->nlmsg_len));
    attribute->rta_type = type;
    attribute->rta_len = (unsigned short)RTA_LENGTH(length);
    memcpy(RTA_DATA(attribute), data, length);
    message->nlmsg_len = NLMSG_ALIGN(message->nlmsg_len) + RTA_ALIGN(attribute->rta_len);
}

void nv_linux_ifdata(const void* stats, size_t length, uint32_t mtu, uint32_t hardware_type, nv_ifdata_t* out) {
    /* Kernels append fields to the statistics; older ones send fewer. */
    struct rtnl_link_stats64 copy;
    memset(&copy, 0, sizeof copy);
    memcpy(&copy, stats, length < sizeof copy ? length : sizeof copy);
    const struct rtnl_link_stats64* s = &copy;
    memset(out, 0, sizeof *out);
    out->ibytes = s->rx_bytes;
    out->obytes = s->tx_bytes;
    out->ipackets = s->rx_packets;
    out->opackets = s->tx_packets;
    out->ierrors = s->rx_errors;
    out->oerrors = s->tx_errors;
    out->imcasts = s->multicast; /* Linux counts received multicast only */
    out->omcasts = 0;
    out->collisions = s->collisions;
    out->iqdrops = s->rx_dropped;
    out->mtu = mtu;
    out->type = nv_linux_iftype(hardware_type);
}

static int copy_string(const struct rtattr* attribute, char name[16]) {
    const char* text = RTA_DATA(attribute);
    size_t length = strnlen(text, RTA_PAYLOAD(attribute));
    if (length >= 16) return 0;
    memcpy(name, text, length);
    name[length] = '\0';
    return 1;
}

static void read_inet6_settings(struct rtattr* inet6, nv_linux_link_t* link) {
    int remaining = (int)RTA_PAYLOAD(inet6);
    for (struct rtattr* a = RTA_DATA(inet6); RTA_OK(a, remaining); a = RTA_NEXT(a, remaining)) {
        if (a->rta_type != IFLA_INET6_CONF) continue;
        const size_t count = RTA_PAYLOAD(a) / sizeof(int32_t);
        if (count <= DEVCONF_ACCEPT_RA || count <= DEVCONF_DISABLE_IPV6 || count <= DEVCONF_ACCEPT_DAD) return;
        const unsigned char* values = RTA_DATA(a);
        memcpy(&link->accept_ra, values + DEVCONF_ACCEPT_RA * sizeof(int32_t), sizeof(int32_t));
        memcpy(&link->disable_ipv6, values + DEVCONF_DISABLE_IPV6 * sizeof(int32_t), sizeof(int32_t));
        memcpy(&link->accept_dad, values + DEVCONF_ACCEPT_DAD * sizeof(int32_t), sizeof(int32_t));
        link->has_inet6 = 1;
    }
}

/* The full message keeps the IPv6 settings among the per-family ones; the
 * IPv6 dump's message keeps them as its protocol information. */
int nv_linux_parse_link(const struct nlmsghdr* message, nv_linux_link_t* out) {
    if (!message || !out || message->nlmsg_len < NLMSG_LENGTH(sizeof(struct ifinfomsg))) return 0;
    struct ifinfomsg* info = NLMSG_DATA(message);
    nv_linux_link_t link;
    memset(&link, 0, sizeof link);
    link.index = info->ifi_index;
    link.flags = info->ifi_flags;
    link.type = info->ifi_type;
    int named = 0;
    struct rtattr* stats = NULL;
    int remaining = (int)IFLA_PAYLOAD(message);
    for (struct rtattr* a = IFLA_RTA(info); RTA_OK(a, remaining); a = RTA_NEXT(a, remaining)) {
        switch (a->rta_type) {
        case IFLA_IFNAME: named = copy_string(a, link.name); break;
        case IFLA_ADDRESS:
            if (RTA_PAYLOAD(a) <= sizeof link.address) {
                link.address_length = (uint8_t)RTA_PAYLOAD(a);
                memcpy(link.address, RTA_DATA(a), link.address_length);
            }
            break;
        case IFLA_MTU:
            if (RTA_PAYLOAD(a) >= sizeof link.mtu) memcpy(&link.mtu, RTA_DATA(a), sizeof link.mtu);
            break;
        case IFLA_STATS64: stats = a; break;
        case IFLA_PARENT_DEV_NAME: link.names_parent = 1; break;
        case IFLA_PROTINFO:
            if (info->ifi_family == AF_INET6) read_inet6_settings(a, &link);
            break;
        case IFLA_AF_SPEC: {
            int families = (int)RTA_PAYLOAD(a);
            for (struct rtattr* f = RTA_DATA(a); RTA_OK(f, families); f = RTA_NEXT(f, families)) {
                if (f->rta_type == AF_INET6) read_inet6_settings(f, &link);
            }
            break;
        }
        default: break;
        }
    }
    if (!named) return 0;
    /* The MTU may follow the statistics, so the data is made last. */
    if (stats && RTA_PAYLOAD(stats) >= NV_LINUX_STATS64_MIN) {
        nv_linux_ifdata(RTA_DATA(stats), RTA_PAYLOAD(stats), link.mtu, link.type, &link.data);
        link.has_data = 1;
    }
    *out = link;
    return 1;
}

int nv_linux_request_link(unsigned int index, const char* ifname, nv_linux_link_t* out) {
    if (!out || index > (unsigned)INT32_MAX || (index == 0 && !ifname)) return 0;
    struct {
        struct nlmsghdr header;
        struct ifinfomsg info;
        unsigned char attributes[RTA_SPACE(16)];
    } request;
    memset(&request, 0, sizeof request);
    start_request(&request.header, RTM_GETLINK, sizeof request.info);
    request.info.ifi_family = AF_UNSPEC;
    request.info.ifi_index = (int)index;
    if (index == 0) {
        char name[16];
        nv_copy_ifname(name, ifname);
        put_attribute(&request.header, IFLA_IFNAME, name, strlen(name) + 1);
    }
    unsigned char* buf = malloc(NV_NETLINK_REPLY_SIZE);
    if (!buf) return 0;
    int fd = nv_linux_netlink_socket();
    int length = nv_linux_netlink_exchange(fd, &request.header, RTM_NEWLINK, buf, NV_NETLINK_REPLY_SIZE);
    if (fd >= 0) close(fd);
    int ok = length > 0 && nv_linux_parse_link((const struct nlmsghdr*)buf, out);
    free(buf);
    return ok;
}

int nv_linux_kernel_names_parents(void) {
    struct utsname system;
    int major = 0, minor = 0;
    if (uname(&system) != 0 || sscanf(system.release, "%d.%d", &major, &minor) != 2) return 0;
    return major > 5 || (major == 5 && minor >= 19);
}

int nv_linux_link_has_device(const nv_linux_link_t* link) {
    if (link->type == ARPHRD_LOOPBACK) return 0;
    return nv_linux_kernel_names_parents() ? link->names_parent : nv_linux_sysfs_has_device(link->name);
}

int nv_get_ifdata(unsigned int ifindex, const char* ifname, nv_ifdata_t* out) {
    if (!ifname || !out || ifindex == 0) return 0;
    nv_linux_link_t link;
    if (!nv_linux_request_link(ifindex, NULL, &link) || !link.has_data || link.index != (int32_t)ifindex) return 0;
    /* The index may have been handed to another interface since the caller
     * read it; foreign counters would be worse than none. */
    char expected[16];
    nv_copy_ifname(expected, ifname);
    if (strncmp(expected, link.name, 16) != 0) return 0;
    nv_ifdata_t data = link.data;
    if (nv_linux_link_has_device(&link)) {
        /* Interface ioctls work on any socket, a netlink one too. */
        int fd = nv_linux_netlink_socket();
        struct ethtool_link_settings settings;
        if (fd >= 0 && nv_linux_link_settings(fd, ifname, NULL, &settings)) data.baudrate = nv_linux_baudrate(&settings);
        if (fd >= 0) close(fd);
    }
    *out = data;
    return 1;
}

int nv_get_in6_addr_flags(int sock, const char* ifname, const struct sockaddr_in6* addr, uint32_t* out) {
    if (!addr || addr->sin6_family != AF_INET6 || !ifname || !out) return 0;
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    nv_copy_ifname(ifr.ifr_name, ifname);
    if (ioctl(sock, SIOCGIFINDEX, &ifr) != 0) return 0;

    struct {
        struct nlmsghdr header;
        struct ifaddrmsg address;
        unsigned char attributes[RTA_SPACE(16)];
    } request;
    memset(&request, 0, sizeof request);
    start_request(&request.header, RTM_GETADDR, sizeof request.address);
    request.address.ifa_family = AF_INET6;
    request.address.ifa_index = (uint32_t)ifr.ifr_ifindex;
    put_attribute(&request.header, IFA_ADDRESS, &addr->sin6_addr, 16);

    unsigned char buf[4096];
    int fd = nv_linux_netlink_socket();
    int length = nv_linux_netlink_exchange(fd, &request.header, RTM_NEWADDR, buf, sizeof buf);
    if (fd >= 0) close(fd);
    if (length < (int)NLMSG_LENGTH(sizeof(struct ifaddrmsg))) return 0;
    struct nlmsghdr* reply = (struct nlmsghdr*)buf;
    struct ifaddrmsg* message = NLMSG_DATA(reply);
    /* The header's byte truncates the flags; the attribute holds all 32 bits. */
    uint32_t flags = message->ifa_flags;
    int remaining = (int)IFA_PAYLOAD(reply);
    for (struct rtattr* a = IFA_RTA(message); RTA_OK(a, remaining); a = RTA_NEXT(a, remaining)) {
        if (a->rta_type == IFA_FLAGS && RTA_PAYLOAD(a) >= sizeof flags) memcpy(&flags, RTA_DATA(a), sizeof flags);
    }
    *out = nv_linux_in6_flags(flags);
    return 1;
}

int nv_linux_netlink_dump(int fd, struct nlmsghdr* request, uint16_t type, nv_linux_visit_t visit, void* context,
                          int* interrupted) {
    if (fd < 0 || !request || !visit) return 0;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    struct sockaddr_nl kernel;
    memset(&kernel, 0, sizeof kernel);
    kernel.nl_family = AF_NETLINK;
    if (sendto(fd, request, request->nlmsg_len, 0, (struct sockaddr*)&kernel, sizeof kernel) !=
        (ssize_t)request->nlmsg_len) {
        return 0;
    }
    unsigned char* buf = malloc(NV_NETLINK_REPLY_SIZE);
    if (!buf) return 0;
    int done = 0, failed = 0, changed = 0;
    while (!done && !failed) {
        ssize_t n = recv(fd, buf, NV_NETLINK_REPLY_SIZE, MSG_TRUNC);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || n > NV_NETLINK_REPLY_SIZE) break;
        size_t remaining = (size_t)n;
        for (struct nlmsghdr* m = (struct nlmsghdr*)buf; NLMSG_OK(m, remaining); m = NLMSG_NEXT(m, remaining)) {
            if (m->nlmsg_seq != request->nlmsg_seq) continue;
            if (m->nlmsg_flags & NLM_F_DUMP_INTR) changed = 1;
            if (m->nlmsg_type == NLMSG_DONE) {
                done = 1;
                break;
            }
            if (m->nlmsg_type == NLMSG_ERROR) {
                failed = 1;
                break;
            }
            if (m->nlmsg_type == type) visit(m, context);
        }
    }
    free(buf);
    if (interrupted) *interrupted = changed;
    return done;
}
