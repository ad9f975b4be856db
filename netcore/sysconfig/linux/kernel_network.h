// What the configuration backends read from the kernel's routing netlink:
// the links, their addresses, and the route that traffic to the wider world
// takes, in the caller's network namespace. Every reading is a fresh request;
// nothing is kept. A failed request gives nothing.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "support/unique_fd.h"

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

// A routing netlink socket; unbound, for requests.
UniqueFd openRoutingSocket();

std::optional<std::vector<Link>> dumpLinks(int fd);
// Both families when `family` is AF_UNSPEC.
std::optional<std::vector<Address>> dumpAddresses(int fd, unsigned char family);
// The kernel's own route choice (policy rules included) for a destination
// that only a default route reaches; nothing without one.
std::optional<PrimaryRoute> primaryRoute(int fd, unsigned char family);

// One link or address of a netlink message (new or deleted alike).
std::optional<Link> parseLink(const nlmsghdr* message);
std::optional<Address> parseAddress(const nlmsghdr* message);

// A hardware address as lower-case hex pairs joined by ':'.
std::string hardwareAddressText(const std::vector<std::uint8_t>& bytes);

}  // namespace netvane::kernel
