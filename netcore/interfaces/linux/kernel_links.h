// Every interface and address of the caller's network namespace, read from
// rtnetlink in a handful of dumps: the facts the shim would otherwise fetch
// with one request per interface and per address.
//
// Two ways, one result. Where every interface has IPv6 settings, the compact
// IPv6 link dump and the statistics dump stand in for the full link dump,
// which costs more than both together (bench/README.md). Otherwise the full
// link dump is read. Either way the interfaces come in the kernel's order.
#pragma once

#include <optional>
#include <vector>

#include "netcore/shim/linux/nv_linux.h"

namespace netvane {

struct KernelLink {
    nv_linux_link_t facts{};  // data and IPv6 settings where the dumps had them
    bool hardware = false;    // a device backs it
};

// One IPv4 or IPv6 address, as the netlink layer reads it.
using KernelAddress = nv_linux_address_t;

struct KernelLinks {
    std::vector<KernelLink> links;
    std::vector<KernelAddress> addresses;
};

// Nothing when netlink would not answer.
std::optional<KernelLinks> readKernelLinks();

}  // namespace netvane
