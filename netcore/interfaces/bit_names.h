// Names of the bits of an interface's flag words, for display and
// diagnostics. The tables are fixed data, built once on first use and
// immutable afterwards, so they may be read from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "netcore/interfaces/hashing.h"

namespace netvane {

struct BitNames {
    // (bit number, name) in display order. Bit numbers of 32 and above never
    // match; a negative or out-of-range number stops the program when used.
    std::vector<std::pair<std::int64_t, std::string>> bits;

    // Names of the set bits, in table order.
    std::vector<std::string> names(std::uint32_t value) const;
    // "8863<UP,BROADCAST,...>": lower-case hex without prefix, then the names;
    // set bits without a name show only in the hex part. 0 gives "0<>".
    std::string format(std::uint32_t value) const;

    static const BitNames& interfaceFlags();  // IFF_*
    static const BitNames& capabilities();    // IFCAP_* (enabled set)
    static const BitNames& nd6Flags();        // ND6_IFF_*

    bool operator==(const BitNames&) const = default;
};

// IPv6 address flags (IN6_IFF_*) as masks, in display order; the order is
// deliberate and not by value.
const std::vector<std::pair<std::uint32_t, std::string>>& ipv6AddressFlagTable();

// Names of the table entries whose mask shares a bit with flags.
std::vector<std::string> ipv6AddressFlagNames(std::uint32_t flags);

}  // namespace netvane

NETVANE_DECLARE_HASH(netvane::BitNames);
