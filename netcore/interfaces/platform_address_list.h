// The system's interface-address list and what its entries say differently
// on each platform; one implementation per OS in its subfolder.
//
// A platform that learns the per-interface kernel facts in the same pass as
// the list hands them out with it, sparing the reader one request per fact
// and interface; for every fact it does not have, the reader asks the shim.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "netcore/shim/nv_shim.h"

struct ifaddrs;
struct sockaddr;

namespace netvane {

// The significant length of a netmask socket address: its own length byte
// where addresses carry one, else the full size of the family's structure.
std::size_t netmaskLength(const sockaddr* netmask, int family);

// An entry's interface flags in the IFF_* layout of BitNames::interfaceFlags.
std::uint32_t interfaceFlagsFromEntry(unsigned int entryFlags);

// The interface an entry belongs to, from the entry's name: where a platform
// names some addresses apart from their interface (an alias label), the
// interface's own name.
std::string_view interfaceNameOf(std::string_view entryName);

// What the shim's per-interface requests answer about one interface; a field
// is empty where its request failed.
struct KernelFacts {
    std::optional<nv_ifdata_t> data;
    std::optional<nv_media_t> media;
    std::optional<std::uint32_t> capabilities;
    std::optional<std::uint32_t> nd6Flags;
    std::optional<std::uint32_t> functionalType;
};

class AddressList {
public:
    // One reading of the list, in the caller's network namespace; empty when
    // the system would not give one. Interface requests go through sock (an
    // AF_INET datagram socket, or -1).
    static AddressList read(int sock);

    AddressList();
    AddressList(AddressList&&) noexcept;
    AddressList& operator=(AddressList&&) noexcept;
    ~AddressList();

    // The entries in the system's order; null when there are none.
    const ifaddrs* entries() const;
    // The facts of the interface of that name, when this reading has them.
    const KernelFacts* facts(std::string_view name) const;
    // The IN6_IFF_* flags of an IPv6 entry of this list, when it has them.
    std::optional<std::uint32_t> in6Flags(const ifaddrs& entry) const;

    struct State;

private:
    explicit AddressList(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

}  // namespace netvane
