// Every interface and address of the caller's network namespace, read from
// rtnetlink in a handful of dumps: the facts the shim would otherwise fetch
// with one request per interface and per address.
//
// Two ways, one result. Where every interface has IPv6 settings, the compact
// IPv6 link dump and the statistics dump stand in for the full link dump,
// which costs about three times both. Otherwise the full link dump is read.
// Either way the interfaces come in the kernel's order.
#pragma once

#include <linux/if_link.h>
#include <net/if.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "netcore/shim/linux/nv_linux.h"

namespace netvane {

struct KernelLink {
    nv_linux_link_t facts{};  // data and IPv6 settings where the dumps had them
    bool hardware = false;    // a device backs it
};

// One IPv4 or IPv6 address: local, peer (where it differs from local) and
// broadcast, each present when its flag says so.
struct KernelAddress {
    unsigned char family = 0;
    unsigned char prefixLength = 0;
    int index = 0;
    std::uint32_t flags = 0;  // IFA_F_*, all 32 bits
    std::uint8_t local[16] = {};
    std::uint8_t peer[16] = {};
    std::uint8_t broadcast[16] = {};
    bool hasPeer = false;
    bool hasBroadcast = false;
    char label[IF_NAMESIZE] = {};  // IPv4 only; empty when the interface's name
};

struct KernelLinks {
    std::vector<KernelLink> links;
    std::vector<KernelAddress> addresses;
};

// Nothing when netlink would not answer.
std::optional<KernelLinks> readKernelLinks();

}  // namespace netvane
