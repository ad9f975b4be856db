/* The per-interface requests on macOS: media, MTU, capability and
 * functional-type ioctls over the caller's AF_INET socket, the two IPv6
 * ioctls over its AF_INET6 socket, the interface MIB sysctl for the 64-bit
 * counters, and the link-level address accessors. What to keep from each
 * reply is decided in nv_records.c. */
#include <net/if.h>
#include <net/if_dl.h>
#include <net/if_mib.h>
#include <netinet/in.h>
#include <netinet6/in6_var.h>
#include <netinet6/nd6.h>
#include <stddef.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/sockio.h>
#include <sys/sysctl.h>

#include "netcore/shim/nv_records.h"
#include "netcore/shim/nv_shim.h"

/* The request numbers callers of the shim were promised; a changed SDK
 * structure shows here instead of as a request the kernel rejects. */
_Static_assert(SIOCGIFXMEDIA == 0xC02C6948, "extended media request");
_Static_assert(SIOCGIFMTU == 0xC0206933, "MTU request");
_Static_assert(SIOCGIFCAP == 0xC020695B, "capability request");
_Static_assert(SIOCGIFFUNCTIONALTYPE == 0xC02069AD, "functional-type request");
_Static_assert(SIOCGIFINFO_IN6 == 0xC030694C, "ND6 request");
_Static_assert(SIOCGIFAFLAG_IN6 == 0xC1206949, "IPv6 address-flag request");
_Static_assert(sizeof(struct ifmibdata) == 180, "interface MIB record");
_Static_assert(IFNAMSIZ == NV_IFNAME_FIELD, "interface name field");
_Static_assert(offsetof(struct sockaddr_dl, sdl_data) == NV_LINK_DATA_OFFSET, "link-level address layout");
_Static_assert(offsetof(struct sockaddr_dl, sdl_alen) == 6 && offsetof(struct sockaddr_dl, sdl_nlen) == 5,
               "link-level address layout");

int nv_get_media(int sock, const char* ifname, nv_media_t* out) {
    struct ifmediareq request;
    memset(&request, 0, sizeof request);
    nv_copy_ifname(request.ifm_name, ifname);
    /* No media list: ifm_count 0 and ifm_ulist null ask for the words alone. */
    if (ioctl(sock, SIOCGIFXMEDIA, &request) != 0) return 0;
    return nv_media_from_reply(request.ifm_current, request.ifm_active, request.ifm_status, out);
}

int nv_get_ifdata(unsigned int ifindex, const char* ifname, nv_ifdata_t* out) {
    int name[6] = {CTL_NET, PF_LINK, NETLINK_GENERIC, IFMIB_IFDATA, (int)ifindex, IFDATA_GENERAL};
    struct ifmibdata mib;
    memset(&mib, 0, sizeof mib);
    size_t size = sizeof mib;
    if (sysctl(name, 6, &mib, &size, NULL, 0) != 0) return 0;
    const struct if_data64* data = &mib.ifmd_data;
    nv_ifmib_record_t record = {
        .type = data->ifi_type,
        .mtu = data->ifi_mtu,
        .baudrate = data->ifi_baudrate,
        .ipackets = data->ifi_ipackets,
        .ierrors = data->ifi_ierrors,
        .opackets = data->ifi_opackets,
        .oerrors = data->ifi_oerrors,
        .collisions = data->ifi_collisions,
        .ibytes = data->ifi_ibytes,
        .obytes = data->ifi_obytes,
        .imcasts = data->ifi_imcasts,
        .omcasts = data->ifi_omcasts,
        .iqdrops = data->ifi_iqdrops,
    };
    memcpy(record.name, mib.ifmd_name, sizeof record.name);
    return nv_ifdata_from_mib(ifname, &record, out);
}

/* One ifreq-shaped request; the reply stays in *request. */
static int interface_request(int sock, unsigned long command, const char* ifname, struct ifreq* request) {
    memset(request, 0, sizeof *request);
    nv_copy_ifname(request->ifr_name, ifname);
    return ioctl(sock, command, request) == 0;
}

int nv_get_mtu(int sock, const char* ifname, uint32_t* out) {
    struct ifreq request;
    if (!interface_request(sock, SIOCGIFMTU, ifname, &request) || out == NULL) return 0;
    *out = (uint32_t)request.ifr_mtu;
    return 1;
}

int nv_get_curcap(int sock, const char* ifname, uint32_t* out) {
    struct ifreq request;
    if (!interface_request(sock, SIOCGIFCAP, ifname, &request) || out == NULL) return 0;
    *out = (uint32_t)request.ifr_curcap;
    return 1;
}

int nv_get_functional_type(int sock, const char* ifname, uint32_t* out) {
    struct ifreq request;
    if (!interface_request(sock, SIOCGIFFUNCTIONALTYPE, ifname, &request) || out == NULL) return 0;
    *out = request.ifr_ifru.ifru_functional_type;
    return 1;
}

int nv_get_nd6_flags(int sock, const char* ifname, uint32_t* out) {
    /* The SDK declares this request over the older, shorter ND record; its
     * number is the one the kernel answers. */
    struct in6_ondireq request;
    memset(&request, 0, sizeof request);
    nv_copy_ifname(request.ifname, ifname);
    if (ioctl(sock, SIOCGIFINFO_IN6, &request) != 0 || out == NULL) return 0;
    *out = request.ndi.flags;
    return 1;
}

int nv_get_in6_addr_flags(int sock, const char* ifname, const struct sockaddr_in6* addr, uint32_t* out) {
    if (addr == NULL || addr->sin6_family != AF_INET6 || out == NULL) return 0;
    struct in6_ifreq request;
    memset(&request, 0, sizeof request);
    nv_copy_ifname(request.ifr_name, ifname);
    memcpy(&request.ifr_ifru.ifru_addr, addr, sizeof request.ifr_ifru.ifru_addr);
    if (ioctl(sock, SIOCGIFAFLAG_IN6, &request) != 0) return 0;
    *out = (uint32_t)request.ifr_ifru.ifru_flags6;
    return 1;
}

int nv_sockaddr_dl_lladdr(const struct sockaddr_dl* sdl, uint8_t* out, size_t capacity) {
    return nv_link_address_copy((const uint8_t*)sdl, AF_LINK, out, capacity);
}

unsigned int nv_sockaddr_dl_index(const struct sockaddr_dl* sdl) {
    return nv_link_address_index((const uint8_t*)sdl, AF_LINK);
}

uint8_t nv_sockaddr_dl_type(const struct sockaddr_dl* sdl) {
    return nv_link_address_type((const uint8_t*)sdl, AF_LINK);
}
