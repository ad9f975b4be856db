/*
 * Internals of the Linux shim: the pure translations from what Linux reports
 * into the words of the shim's contract (media words, capability bits, ND
 * flags, address flags, interface types), kept apart from the requests so
 * that tests can check them without a kernel.
 */
#ifndef NETVANE_NETCORE_SHIM_LINUX_NV_LINUX_H
#define NETVANE_NETCORE_SHIM_LINUX_NV_LINUX_H

#include <stddef.h>
#include <stdint.h>

#include "netcore/shim/nv_shim.h"

#ifdef __cplusplus
extern "C" {
#endif

struct ethtool_link_settings;
struct nlattr;
struct nlmsghdr;

/* The Ethernet media word of a link: subtype by speed (Mb/s) and ethtool
 * port, duplex and flow-control options. 0 for an unknown speed. */
int nv_linux_media_word(uint32_t speed, uint8_t port, uint8_t duplex, int flow_control);

/* Capability bit(s) that an enabled ethtool feature stands for; 0 for none.
 * vlan-challenged is the absence of VLAN_MTU and is handled by the caller. */
uint32_t nv_linux_feature_capability(const char* feature);

/* Capability bits of the timestamping modes an interface offers. */
uint32_t nv_linux_timestamp_capabilities(uint32_t so_timestamping);

/* IANA ifType of a kernel hardware type (ARPHRD_*); 1 (other) if unlisted. */
uint8_t nv_linux_iftype(uint32_t hardware_type);

/* Functional type from sysfs facts: the hardware type, the uevent DEVTYPE
 * (may be empty), whether wireless attributes exist and whether a hardware
 * device backs the interface. */
uint32_t nv_linux_functional_type(uint32_t hardware_type, const char* devtype, int wireless, int hardware);

/* ND6_IFF_* bits from the IPv6 settings of an interface. */
uint32_t nv_linux_nd6_flags(int accept_ra, int disable_ipv6, int accept_dad, int noarp);

/* IN6_IFF_* bits from the 32-bit IFA_F_* flags of an IPv6 address. */
uint32_t nv_linux_in6_flags(uint32_t ifa_flags);

/* The shim's interface data from the kernel's 64-bit link statistics (an
 * IFLA_STATS64 or IFLA_STATS_LINK_64 attribute of at least
 * NV_LINUX_STATS64_MIN bytes: the fields up to the collisions), MTU and
 * hardware type; line rate 0. Fails for a missing or shorter attribute. */
#define NV_LINUX_STATS64_MIN (10 * sizeof(uint64_t))
int nv_linux_ifdata(const struct nlattr* stats, uint32_t mtu, uint32_t hardware_type, nv_ifdata_t* out);

/* Interface flags in the IFF_* layout of the shared bit names. */
uint32_t nv_linux_interface_flags(uint32_t kernel_flags);

/* Speed, duplex, port and negotiation of a link (ETHTOOL_GLINKSETTINGS);
 * sock may be any socket. *words, when given, is the mask size to try first
 * (0: unknown, costing one more request) and on success the kernel's. */
int nv_linux_link_settings(int sock, const char* ifname, int* words, struct ethtool_link_settings* out);
/* The line rate of link settings in bits per second; 0 when unknown. */
uint64_t nv_linux_baudrate(const struct ethtool_link_settings* settings);
/* The media words of a link whose settings are in hand; asks the link state
 * and the pause settings. */
int nv_linux_media(int sock, const char* ifname, const struct ethtool_link_settings* settings, nv_media_t* out);

/* Capability bits by ethtool feature number. The feature names are the
 * kernel's, the same for every interface, so one table serves a whole
 * reading. */
#define NV_LINUX_MAX_FEATURES 1024
typedef struct nv_linux_features {
    uint32_t count;
    int32_t vlan_challenged; /* its feature number, or -1 */
    uint32_t capability[NV_LINUX_MAX_FEATURES];
} nv_linux_features_t;
int nv_linux_feature_table(int sock, const char* ifname, nv_linux_features_t* out);
/* The enabled capabilities by a table in hand; fails also when the
 * interface's feature count is not the table's. */
int nv_linux_curcap(int sock, const char* ifname, const nv_linux_features_t* table, uint32_t* out);

/* The capability bits of the enabled features `active` (a feature bitmap of
 * `words` 32-bit words) by a table in hand, before the timestamping modes. */
uint32_t nv_linux_feature_capabilities(const nv_linux_features_t* table, const uint32_t* active, size_t words);
/* The capability bits of an interface's timestamping modes (ETHTOOL_GET_TS_INFO);
 * 0 when it has none or the request fails. */
uint32_t nv_linux_timestamp_request(int sock, const char* ifname);
/* Every interface's enabled features and timestamping modes by one dump each
 * of the kernel's ethtool netlink family, where the requests above cost two
 * system calls (and two turns of the kernel's lock) per interface.
 * `features` gets each interface index with nv_linux_feature_capabilities of
 * its features, for every interface whose feature count is the table's;
 * `timestamps` gets an index with the capabilities of its timestamping modes,
 * for every interface without a clock of its own: one with a clock may have
 * several timestamping providers (one reply each), so its own request answers
 * for it. 1 when both dumps completed; 0 where the family is missing (kernels
 * before 5.7 or built without it) or a dump failed, and the requests remain. */
typedef void (*nv_linux_features_visit_t)(int32_t index, uint32_t capabilities, void* context);
int nv_linux_dump_capabilities(const nv_linux_features_t* table, nv_linux_features_visit_t features,
                               nv_linux_features_visit_t timestamps, void* context);

/* sysfs, which answers for the interfaces of the network namespace it was
 * mounted in (IMPORTANT: a caller in a namespace of its own needs its own
 * mount). `sysfs` is a descriptor of its root, or NV_LINUX_SYSFS for the
 * system's /sys; tests hand in listings of their own. */
#define NV_LINUX_SYSFS (-1)
/* Whether a device backs the interface: its directory and the device it
 * links to both lie outside devices/virtual, where the kernel puts what no
 * hardware backs. So none backs an interface listed in
 * devices/virtual/net, and a caller asking about many may read that
 * listing once instead. */
int nv_linux_sysfs_has_device(int sysfs, const char* ifname);
/* Whether the interface is a radio (it has wireless attributes). */
int nv_linux_sysfs_wireless(int sysfs, const char* ifname);
/* Functional type of an interface whose hardware type is known; sysfs is
 * asked only about hardware interfaces. */
uint32_t nv_linux_read_functional_type(int sysfs, const char* ifname, uint32_t hardware_type, int hardware);

/* The facts of one link message (RTM_NEWLINK or RTM_DELLINK), whether it
 * answers a single request, comes from the full link dump, the compact IPv6
 * one or an event; one parser for all, so that every reading of a link
 * agrees. */
/* The C library's address-list entries leave room for this many address
 * bytes behind sll_addr's declared eight. */
#define NV_LINUX_LINK_ADDRESS_MAX 24
typedef struct nv_linux_link {
    int32_t index;
    uint32_t flags;  /* the kernel's IFF_* layout */
    uint16_t type;   /* ARPHRD_* */
    char name[16];   /* terminated */
    uint8_t address_length; /* 0: none, or longer than the field */
    uint8_t address[NV_LINUX_LINK_ADDRESS_MAX];
    uint32_t mtu;
    int has_data;      /* counters from the 64-bit statistics; line rate 0 */
    nv_ifdata_t data;
    int names_parent;  /* the message names a parent device */
    int has_inet6;     /* IPv6 settings (the IPv6 dump and full messages) */
    int32_t accept_ra, disable_ipv6, accept_dad;
    char kind[16];     /* the driver's kind ("veth", "tun", ...); empty for plain devices */
    int32_t lower;     /* the link it runs over (IFLA_LINK), 0 for none */
    int lower_elsewhere; /* that link lives in another namespace */
} nv_linux_link_t;
/* 0 for a message too short to be a link's, or without a name that fits. */
int nv_linux_parse_link(const struct nlmsghdr* message, nv_linux_link_t* out);
/* The link of that index, or (index 0) of that name, by a single request on
 * a routing netlink socket of the call's own. */
int nv_linux_request_link(unsigned int index, const char* ifname, nv_linux_link_t* out);
/* Whether the kernel names a link's parent device in full link messages
 * (from 5.19 on); where it does not, sysfs tells. */
int nv_linux_kernel_names_parents(void);
/* Whether a device backs a link read from a full link message: the one
 * place that decides it. Only such links have a real medium: virtual
 * drivers make up a speed (a veth or tun claims 10 Gb/s) or report none.
 * Loopback never; where the kernel names parents (`names_parents`) the
 * message says; elsewhere sysfs does. */
int nv_linux_link_has_device(const nv_linux_link_t* link, int names_parents, int sysfs);

/* One IPv4 or IPv6 address message: local, peer (where it differs from
 * local) and broadcast, each present when its flag says so. */
typedef struct nv_linux_address {
    int32_t index;
    uint8_t family;
    uint8_t prefix_length;
    uint32_t flags; /* IFA_F_*, all 32 bits */
    uint8_t local[16];
    uint8_t peer[16];
    uint8_t broadcast[16];
    int has_peer;
    int has_broadcast;
    char label[16]; /* IPv4 only; empty when the interface's name */
} nv_linux_address_t;
/* 0 for another family, or a message without an address of its size. */
int nv_linux_parse_address(const struct nlmsghdr* message, nv_linux_address_t* out);

/* A statistics message (RTM_NEWSTATS): its interface and its 64-bit
 * statistics attribute (NULL when it has none). */
int nv_linux_parse_stats(const struct nlmsghdr* message, int32_t* index, const struct nlattr** stats);

/* A route message: its type (RTN_*), output interface and router. */
typedef struct nv_linux_route {
    uint8_t family;
    uint8_t type;
    int32_t interface;  /* 0 for none */
    uint8_t gateway[16];
    int has_gateway;
} nv_linux_route_t;
int nv_linux_parse_route(const struct nlmsghdr* message, nv_linux_route_t* out);

/* Reads a small text file relative to dirfd into buf (terminated); the
 * number of bytes read, or -1. */
int nv_linux_read_text(int dirfd, const char* path, char* buf, size_t size);
/* The file's content as a decimal integer; 0 on failure. */
int nv_linux_read_long(int dirfd, const char* path, long* out);

#ifdef __cplusplus
}
#endif

#endif
