// What the address list's entries say differently on each platform; one
// implementation per OS in its subfolder.
#pragma once

#include <cstddef>
#include <cstdint>

struct sockaddr;

namespace netvane {

// The significant length of a netmask socket address: its own length byte
// where addresses carry one, else the full size of the family's structure.
std::size_t netmaskLength(const sockaddr* netmask, int family);

// An entry's interface flags in the IFF_* layout of BitNames::interfaceFlags.
std::uint32_t interfaceFlagsFromEntry(unsigned int entryFlags);

}  // namespace netvane
