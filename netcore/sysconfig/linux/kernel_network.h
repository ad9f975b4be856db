// What the configuration backends read from the kernel's routing netlink:
// the links, their addresses, and the route that traffic to the wider world
// takes, in the caller's network namespace. Every reading is a fresh request
// (the messages are the netlink layer's to parse: nv_linux.h); nothing is
// kept. A dump that the kernel keeps interrupting (the table changed while
// it was read, kDumpAttempts times over) fails like any other: its list may
// lack an entry, and callers that track links must not take it as whole.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "netcore/shim/linux/nv_linux_netlink.h"
#include "support/result.h"

namespace netvane::kernel {

struct Link {
    int index = 0;
    std::string name;
    unsigned type = 0;   // ARPHRD_*
    unsigned flags = 0;  // IFF_*
    std::string kind;    // "vlan", "bridge", "veth", ...; empty for plain devices
    std::string alias;   // the administrator's description, if any
    std::vector<std::uint8_t> address;
    int lower = 0;  // the link a layered one runs over, 0 for none

    // Up and able to carry traffic.
    bool active() const;
    bool operator==(const Link&) const = default;
};

struct Address {
    int index = 0;
    unsigned char family = 0;
    std::string address;
    unsigned prefixLength = 0;

    bool operator==(const Address&) const = default;
};

// The route to the wider world for one family: its interface and router.
struct PrimaryRoute {
    std::string interfaceName;
    std::optional<std::string> router;

    bool operator==(const PrimaryRoute&) const = default;
};

inline constexpr int kDumpAttempts = 3;

// A routing netlink socket for requests; null (with errno) when none opens.
NetlinkSocket openRoutingSocket();

Result<std::vector<Link>> dumpLinks(nv_nl_socket_t* socket);
// Both families when `family` is AF_UNSPEC.
Result<std::vector<Address>> dumpAddresses(nv_nl_socket_t* socket, unsigned char family);
// The kernel's own route choice (policy rules included) for a destination
// that only a default route reaches; nothing without one.
std::optional<PrimaryRoute> primaryRoute(nv_nl_socket_t* socket, unsigned char family);

// One link or address of a netlink message (new or deleted alike).
std::optional<Link> parseLink(const nlmsghdr* message);
std::optional<Address> parseAddress(const nlmsghdr* message);

// A hardware address as lower-case hex pairs joined by ':'.
std::string hardwareAddressText(const std::vector<std::uint8_t>& bytes);

}  // namespace netvane::kernel
