/* The routing family's messages, each kind parsed in one place (links,
 * addresses, statistics, routes), and the shim's requests that ask for
 * them one interface or address at a time. */
#include <errno.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/utsname.h>
/* After the C library's address headers: the kernel's IPv6 header then
 * leaves their definitions alone. */
#include <linux/ethtool.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/ipv6.h>
#include <linux/rtnetlink.h>

#include "netcore/shim/linux/nv_linux.h"
#include "netcore/shim/linux/nv_linux_netlink.h"
#include "netcore/shim/nv_cleanup.h"
#include "netcore/shim/nv_records.h"
#include "netcore/shim/nv_shim.h"

int nv_linux_ifdata(const struct nlattr* stats, uint32_t mtu, uint32_t hardware_type, nv_ifdata_t* out) {
    if (nv_nl_length(stats) < NV_LINUX_STATS64_MIN) return 0;
    /* Kernels append fields to the statistics; older ones send fewer. */
    struct rtnl_link_stats64 s;
    memset(&s, 0, sizeof s);
    const size_t length = nv_nl_length(stats);
    memcpy(&s, nv_nl_data(stats), length < sizeof s ? length : sizeof s);
    memset(out, 0, sizeof *out);
    out->ibytes = s.rx_bytes;
    out->obytes = s.tx_bytes;
    out->ipackets = s.rx_packets;
    out->opackets = s.tx_packets;
    out->ierrors = s.rx_errors;
    out->oerrors = s.tx_errors;
    out->imcasts = s.multicast; /* Linux counts received multicast only */
    out->omcasts = 0;
    out->collisions = s.collisions;
    out->iqdrops = s.rx_dropped;
    out->mtu = mtu;
    out->type = nv_linux_iftype(hardware_type);
    return 1;
}

static void read_inet6_settings(const struct nlattr* inet6, nv_linux_link_t* link) {
    const struct nlattr* table[IFLA_INET6_MAX + 1];
    nv_nl_parse_nested(table, IFLA_INET6_MAX, inet6);
    int32_t accept_ra = 0, disable_ipv6 = 0, accept_dad = 0;
    if (nv_nl_s32_at(table[IFLA_INET6_CONF], DEVCONF_ACCEPT_RA, &accept_ra) &&
        nv_nl_s32_at(table[IFLA_INET6_CONF], DEVCONF_DISABLE_IPV6, &disable_ipv6) &&
        nv_nl_s32_at(table[IFLA_INET6_CONF], DEVCONF_ACCEPT_DAD, &accept_dad)) {
        link->accept_ra = accept_ra;
        link->disable_ipv6 = disable_ipv6;
        link->accept_dad = accept_dad;
        link->has_inet6 = 1;
    }
}

static void read_kind(const struct nlattr* linkinfo, nv_linux_link_t* link) {
    const struct nlattr* table[IFLA_INFO_MAX + 1];
    nv_nl_parse_nested(table, IFLA_INFO_MAX, linkinfo);
    if (!nv_nl_string(table[IFLA_INFO_KIND], link->kind, sizeof link->kind)) link->kind[0] = '\0';
}

/* The full message keeps the IPv6 settings among the per-family ones; the
 * IPv6 dump's message keeps them as its protocol information. */
int nv_linux_parse_link(const struct nlmsghdr* message, nv_linux_link_t* out) {
    const struct ifinfomsg* info = nv_nl_header(message, sizeof *info);
    if (!info || !out) return 0;
    const struct nlattr* table[IFLA_MAX + 1];
    nv_nl_parse_message(table, IFLA_MAX, message, sizeof *info);
    nv_linux_link_t link;
    memset(&link, 0, sizeof link);
    if (!nv_nl_string(table[IFLA_IFNAME], link.name, sizeof link.name)) return 0;
    link.index = info->ifi_index;
    link.flags = info->ifi_flags;
    link.type = info->ifi_type;
    const size_t address_length = nv_nl_length(table[IFLA_ADDRESS]);
    if (address_length <= sizeof link.address && nv_nl_bytes(table[IFLA_ADDRESS], link.address, address_length)) {
        link.address_length = (uint8_t)address_length;
    }
    (void)nv_nl_u32(table[IFLA_MTU], &link.mtu);
    link.names_parent = table[IFLA_PARENT_DEV_NAME] != NULL;
    if (info->ifi_family == AF_INET6 && table[IFLA_PROTINFO]) read_inet6_settings(table[IFLA_PROTINFO], &link);
    if (table[IFLA_AF_SPEC]) {
        const struct nlattr* families[AF_INET6 + 1];
        nv_nl_parse_nested(families, AF_INET6, table[IFLA_AF_SPEC]);
        if (families[AF_INET6]) read_inet6_settings(families[AF_INET6], &link);
    }
    if (table[IFLA_LINKINFO]) read_kind(table[IFLA_LINKINFO], &link);
    (void)nv_nl_s32(table[IFLA_LINK], &link.lower);
    link.lower_elsewhere = table[IFLA_LINK_NETNSID] != NULL;
    link.has_data = nv_linux_ifdata(table[IFLA_STATS64], link.mtu, link.type, &link.data);
    *out = link;
    return 1;
}

int nv_linux_parse_address(const struct nlmsghdr* message, nv_linux_address_t* out) {
    const struct ifaddrmsg* info = nv_nl_header(message, sizeof *info);
    if (!info || !out || (info->ifa_family != AF_INET && info->ifa_family != AF_INET6)) return 0;
    const size_t size = info->ifa_family == AF_INET ? 4 : 16;
    const struct nlattr* table[IFA_MAX + 1];
    nv_nl_parse_message(table, IFA_MAX, message, sizeof *info);
    nv_linux_address_t address;
    memset(&address, 0, sizeof address);
    address.index = (int32_t)info->ifa_index;
    address.family = info->ifa_family;
    address.prefix_length = info->ifa_prefixlen;
    /* The header's byte truncates the flags; the attribute holds all 32. */
    if (!nv_nl_u32(table[IFA_FLAGS], &address.flags)) address.flags = info->ifa_flags;
    /* IFA_ADDRESS is the local address, or the peer's on a point-to-point
     * link, where IFA_LOCAL holds the local one. */
    uint8_t destination[16];
    const int has_destination = nv_nl_bytes(table[IFA_ADDRESS], destination, size);
    if (!nv_nl_bytes(table[IFA_LOCAL], address.local, size)) {
        if (!has_destination) return 0;
        memcpy(address.local, destination, size);
    }
    if (has_destination && memcmp(destination, address.local, size) != 0) {
        memcpy(address.peer, destination, size);
        address.has_peer = 1;
    }
    address.has_broadcast = nv_nl_bytes(table[IFA_BROADCAST], address.broadcast, size);
    if (!nv_nl_string(table[IFA_LABEL], address.label, sizeof address.label)) address.label[0] = '\0';
    *out = address;
    return 1;
}

int nv_linux_parse_stats(const struct nlmsghdr* message, int32_t* index, const struct nlattr** stats) {
    const struct if_stats_msg* info = nv_nl_header(message, sizeof *info);
    if (!info || !index || !stats) return 0;
    const struct nlattr* table[IFLA_STATS_MAX + 1];
    nv_nl_parse_message(table, IFLA_STATS_MAX, message, sizeof *info);
    *index = (int32_t)info->ifindex;
    *stats = table[IFLA_STATS_LINK_64];
    return 1;
}

int nv_linux_parse_route(const struct nlmsghdr* message, nv_linux_route_t* out) {
    const struct rtmsg* info = nv_nl_header(message, sizeof *info);
    if (!info || !out || (info->rtm_family != AF_INET && info->rtm_family != AF_INET6)) return 0;
    const struct nlattr* table[RTA_MAX + 1];
    nv_nl_parse_message(table, RTA_MAX, message, sizeof *info);
    nv_linux_route_t route;
    memset(&route, 0, sizeof route);
    route.family = info->rtm_family;
    route.type = info->rtm_type;
    (void)nv_nl_s32(table[RTA_OIF], &route.interface);
    route.has_gateway = nv_nl_bytes(table[RTA_GATEWAY], route.gateway, info->rtm_family == AF_INET ? 4 : 16);
    *out = route;
    return 1;
}

int nv_linux_request_link(unsigned int index, const char* ifname, nv_linux_link_t* out) {
    if (!out || index > (unsigned)INT32_MAX || (index == 0 && !ifname)) return 0;
    nv_nl_request_t request;
    struct ifinfomsg* info = nv_nl_request(&request, RTM_GETLINK, 0, sizeof *info);
    info->ifi_family = AF_UNSPEC;
    info->ifi_index = (int)index;
    if (index == 0) {
        char name[16];
        nv_copy_ifname(name, ifname);
        nv_nl_put_string(&request, IFLA_IFNAME, name);
    }
    NV_AUTO_NETLINK nv_nl_socket_t* socket = nv_nl_open(NETLINK_ROUTE);
    const struct nlmsghdr* reply = nv_nl_exchange(socket, &request, RTM_NEWLINK);
    return reply && nv_linux_parse_link(reply, out);
}

int nv_linux_kernel_names_parents(void) {
    struct utsname system;
    int major = 0, minor = 0;
    if (uname(&system) != 0 || sscanf(system.release, "%d.%d", &major, &minor) != 2) return 0;
    return major > 5 || (major == 5 && minor >= 19);
}

int nv_linux_link_has_device(const nv_linux_link_t* link, int names_parents, int sysfs) {
    if (link->type == ARPHRD_LOOPBACK) return 0;
    return names_parents ? link->names_parent : nv_linux_sysfs_has_device(sysfs, link->name);
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
    if (nv_linux_link_has_device(&link, nv_linux_kernel_names_parents(), NV_LINUX_SYSFS)) {
        /* Interface ioctls work on any socket. */
        NV_AUTO_CLOSE int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct ethtool_link_settings settings;
        if (fd >= 0 && nv_linux_link_settings(fd, ifname, NULL, &settings)) {
            data.baudrate = nv_linux_baudrate(&settings);
        }
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

    nv_nl_request_t request;
    struct ifaddrmsg* info = nv_nl_request(&request, RTM_GETADDR, 0, sizeof *info);
    info->ifa_family = AF_INET6;
    info->ifa_index = (uint32_t)ifr.ifr_ifindex;
    nv_nl_put(&request, IFA_ADDRESS, &addr->sin6_addr, 16);
    NV_AUTO_NETLINK nv_nl_socket_t* socket = nv_nl_open(NETLINK_ROUTE);
    nv_linux_address_t address;
    const struct nlmsghdr* reply = nv_nl_exchange(socket, &request, RTM_NEWADDR);
    if (!reply || !nv_linux_parse_address(reply, &address)) return 0;
    *out = nv_linux_in6_flags(address.flags);
    return 1;
}
