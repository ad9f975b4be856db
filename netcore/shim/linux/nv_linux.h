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

#ifdef __cplusplus
extern "C" {
#endif

struct ethtool_link_settings;

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

/* Interface flags in the IFF_* layout of the shared bit names. */
uint32_t nv_linux_interface_flags(uint32_t kernel_flags);

/* Finds the "iff:" line of a tun descriptor's fdinfo text and copies the
 * name, bounded to 16 bytes with the terminator. 1 when found. */
int nv_linux_fdinfo_iff(const char* text, size_t length, char name[16]);

/* Bounded, zero-filled copy of an interface name into a 16-byte field. */
void nv_linux_copy_name(char dest[16], const char* ifname);

/* Speed, duplex, port and negotiation of a link (ETHTOOL_GLINKSETTINGS with
 * its two-call handshake on the mask size); sock may be any socket. */
int nv_linux_link_settings(int sock, const char* ifname, struct ethtool_link_settings* out);

/* Reads a small text file relative to dirfd into buf (terminated); the
 * number of bytes read, or -1. */
int nv_linux_read_text(int dirfd, const char* path, char* buf, size_t size);
/* The file's content as a decimal integer; 0 on failure. */
int nv_linux_read_long(int dirfd, const char* path, long* out);

#ifdef __cplusplus
}
#endif

#endif
