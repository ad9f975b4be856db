/* What Linux reports, in the words of the shim's contract. Tables are data:
 * the first matching row wins. */
#include <linux/ethtool.h>
#include <linux/if_addr.h>
#include <net/if_arp.h>
#include <linux/net_tstamp.h>
#include <net/if.h>
#include <string.h>

#include "netcore/shim/linux/nv_linux.h"

#define NV_ETHERNET 0x20
#define NV_FULL_DUPLEX 0x00100000
#define NV_HALF_DUPLEX 0x00200000
#define NV_FLOW_CONTROL 0x00400000
#define NV_SUBTYPE_OTHER 0x1F

/* Subtypes of the media tables by speed; the port picks copper, fibre or
 * direct-attach cable where the speed has several. 0 means "none listed". */
typedef struct speed_row {
    uint32_t speed;
    int copper;
    int fibre;
    int cable;
} speed_row_t;

static const speed_row_t speed_rows[] = {
    {10, 0x3, 0xD, 0x3},
    {100, 0x6, 0x7, 0x6},
    {1000, 0x10, 0xB, 0xF},
    {2500, 0x16, 0x10000, 0x1001F},
    {5000, 0x17, 0x20000, 0x17},
    {10000, 0x15, 0x12, 0x10001},
    {25000, 0x20001, 0x10017, 0x10015},
    {40000, 0x10006, 0x10006, 0x10005},
    {50000, 0x20012, 0x20012, 0x10018},
    {56000, 0x10013, 0x10013, 0x10013},
    {100000, 0x10010, 0x10010, 0x1000F},
    {200000, 0x30008, 0x30008, 0x30007},
    {400000, 0x30013, 0x30013, 0x30013},
};

int nv_linux_media_word(uint32_t speed, uint8_t port, uint8_t duplex, int flow_control) {
    if (speed == 0 || speed == (uint32_t)SPEED_UNKNOWN) return 0;
    int subtype = NV_SUBTYPE_OTHER;
    for (size_t i = 0; i < sizeof speed_rows / sizeof speed_rows[0]; ++i) {
        const speed_row_t* row = &speed_rows[i];
        if (row->speed != speed) continue;
        if (port == PORT_FIBRE) {
            subtype = row->fibre;
        } else if (port == PORT_DA) {
            subtype = row->cable;
        } else if (speed == 10 && port == PORT_BNC) {
            subtype = 0x4;
        } else if (speed == 10 && port == PORT_AUI) {
            subtype = 0x5;
        } else {
            subtype = row->copper;
        }
        break;
    }
    int word = NV_ETHERNET | subtype;
    if (duplex == DUPLEX_FULL) word |= NV_FULL_DUPLEX;
    if (duplex == DUPLEX_HALF) word |= NV_HALF_DUPLEX;
    if (flow_control) word |= NV_FLOW_CONTROL;
    return word;
}

/* Capability bits, by number in the shared capability names. */
#define CAP(bit) (1u << (bit))
enum { RXCSUM = 0, TXCSUM = 1, VLAN_HWTAGGING = 3, TSO4 = 5, TSO6 = 6, LRO = 7, HW_TIMESTAMP = 11,
       SW_TIMESTAMP = 12, PARTIAL_CSUM = 13 };

static const struct {
    const char* feature;
    uint32_t capability;
} feature_rows[] = {
    {"rx-checksum", CAP(RXCSUM)},
    {"tx-checksum-ipv4", CAP(TXCSUM)},
    {"tx-checksum-ipv6", CAP(TXCSUM)},
    {"tx-checksum-ip-generic", CAP(TXCSUM) | CAP(PARTIAL_CSUM)},
    {"tx-vlan-hw-insert", CAP(VLAN_HWTAGGING)},
    {"rx-vlan-hw-parse", CAP(VLAN_HWTAGGING)},
    {"tx-tcp-segmentation", CAP(TSO4)},
    {"tx-tcp6-segmentation", CAP(TSO6)},
    {"large-receive-offload", CAP(LRO)},
};

uint32_t nv_linux_feature_capability(const char* feature) {
    for (size_t i = 0; i < sizeof feature_rows / sizeof feature_rows[0]; ++i) {
        if (strcmp(feature_rows[i].feature, feature) == 0) return feature_rows[i].capability;
    }
    return 0;
}

uint32_t nv_linux_timestamp_capabilities(uint32_t so_timestamping) {
    uint32_t caps = 0;
    if (so_timestamping & (SOF_TIMESTAMPING_TX_HARDWARE | SOF_TIMESTAMPING_RX_HARDWARE)) caps |= CAP(HW_TIMESTAMP);
    if (so_timestamping & (SOF_TIMESTAMPING_TX_SOFTWARE | SOF_TIMESTAMPING_RX_SOFTWARE)) caps |= CAP(SW_TIMESTAMP);
    return caps;
}

/* IANA ifType numbers. */
static const struct {
    uint32_t hardware_type;
    uint8_t iftype;
} iftype_rows[] = {
    {ARPHRD_ETHER, 6},   {ARPHRD_LOOPBACK, 24}, {ARPHRD_PPP, 23},    {ARPHRD_IEEE80211, 71},
    {ARPHRD_INFINIBAND, 199}, {ARPHRD_TUNNEL, 131}, {ARPHRD_TUNNEL6, 131}, {ARPHRD_SIT, 131},
    {ARPHRD_IPGRE, 131}, {823 /* ARPHRD_IP6GRE */, 131}, {ARPHRD_CAN, 1},
    {ARPHRD_NONE, 1},    {ARPHRD_RAWIP, 1},
};

uint8_t nv_linux_iftype(uint32_t hardware_type) {
    for (size_t i = 0; i < sizeof iftype_rows / sizeof iftype_rows[0]; ++i) {
        if (iftype_rows[i].hardware_type == hardware_type) return iftype_rows[i].iftype;
    }
    return 1;
}

/* Functional types, by raw value. */
enum { FT_UNKNOWN = 0, FT_LOOPBACK = 1, FT_WIRED = 2, FT_WIFI_INFRA = 3, FT_CELLULAR = 5 };

uint32_t nv_linux_functional_type(uint32_t hardware_type, const char* devtype, int wireless, int hardware) {
    if (hardware_type == ARPHRD_LOOPBACK) return FT_LOOPBACK;
    if (strcmp(devtype, "wlan") == 0 || wireless) return FT_WIFI_INFRA;
    if (strcmp(devtype, "wwan") == 0 || (hardware_type == ARPHRD_RAWIP && hardware)) return FT_CELLULAR;
    /* Bridges, bonds and veths are Ethernet too, but not a wire. */
    if (hardware_type == ARPHRD_ETHER && hardware && devtype[0] == '\0') return FT_WIRED;
    return FT_UNKNOWN;
}

/* ND6_IFF_* bits by number in the shared ND names. */
enum { PERFORMNUD = 0, ACCEPT_RTADV = 1, IFDISABLED = 3, DAD = 9 };

uint32_t nv_linux_nd6_flags(int accept_ra, int disable_ipv6, int accept_dad, int noarp) {
    uint32_t flags = 0;
    if (!noarp) flags |= CAP(PERFORMNUD);
    if (accept_ra > 0) flags |= CAP(ACCEPT_RTADV);
    if (disable_ipv6) flags |= CAP(IFDISABLED);
    if (accept_dad > 0) flags |= CAP(DAD);
    return flags;
}

/* IN6_IFF_* masks. */
enum { IN6_TENTATIVE = 0x2, IN6_DUPLICATED = 0x4, IN6_DEPRECATED = 0x10, IN6_AUTOCONF = 0x40,
       IN6_TEMPORARY = 0x80, IN6_DYNAMIC = 0x100, IN6_OPTIMISTIC = 0x200, IN6_SECURED = 0x400 };

static const struct {
    uint32_t ifa_flag;
    uint32_t in6_flag;
} address_flag_rows[] = {
    {IFA_F_TEMPORARY, IN6_TEMPORARY},   {IFA_F_OPTIMISTIC, IN6_OPTIMISTIC},
    {IFA_F_DADFAILED, IN6_DUPLICATED},  {IFA_F_DEPRECATED, IN6_DEPRECATED},
    {IFA_F_TENTATIVE, IN6_TENTATIVE},   {IFA_F_MANAGETEMPADDR, IN6_AUTOCONF},
    {IFA_F_STABLE_PRIVACY, IN6_SECURED},
};

uint32_t nv_linux_in6_flags(uint32_t ifa_flags) {
    uint32_t flags = 0;
    for (size_t i = 0; i < sizeof address_flag_rows / sizeof address_flag_rows[0]; ++i) {
        if (ifa_flags & address_flag_rows[i].ifa_flag) flags |= address_flag_rows[i].in6_flag;
    }
    /* An address with a lifetime came from autoconfiguration or DHCPv6. */
    if (!(ifa_flags & IFA_F_PERMANENT)) flags |= IN6_DYNAMIC;
    return flags;
}

uint32_t nv_linux_interface_flags(uint32_t kernel_flags) {
    /* UP, BROADCAST, DEBUG, LOOPBACK, POINTOPOINT, RUNNING, NOARP, PROMISC and
     * ALLMULTI sit at the same bits; MULTICAST moves; the Linux-only bits in
     * between (NOTRAILERS, MASTER, SLAVE, PORTSEL, AUTOMEDIA, DYNAMIC and up)
     * would read as unrelated names and are left out. */
    const uint32_t same = IFF_UP | IFF_BROADCAST | IFF_DEBUG | IFF_LOOPBACK | IFF_POINTOPOINT | IFF_RUNNING |
                          IFF_NOARP | IFF_PROMISC | IFF_ALLMULTI;
    uint32_t flags = kernel_flags & same;
    if (kernel_flags & IFF_MULTICAST) flags |= 0x8000;
    return flags;
}
