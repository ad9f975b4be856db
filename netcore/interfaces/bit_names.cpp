#include "netcore/interfaces/bit_names.h"

#include <limits>

#include "netcore/interfaces/interface_snapshot.h"
#include "support/fatal.h"

namespace netvane {
namespace {

std::uint32_t maskOf(std::int64_t bit) {
    if (bit < 0 || bit > std::numeric_limits<std::uint32_t>::max()) {
        fatal("bit number %lld is outside 0...2^32-1", static_cast<long long>(bit));
    }
    return bit >= 32 ? 0 : std::uint32_t{1} << bit;
}

BitNames makeTable(std::initializer_list<const char*> names) {
    BitNames table;
    std::int64_t bit = 0;
    for (const char* name : names) table.bits.emplace_back(bit++, name);
    return table;
}

}  // namespace

std::vector<std::string> BitNames::names(std::uint32_t value) const {
    std::vector<std::string> result;
    for (const auto& [bit, name] : bits) {
        if ((value & maskOf(bit)) != 0) result.push_back(name);
    }
    return result;
}

std::string BitNames::format(std::uint32_t value) const {
    char hex[16];
    std::snprintf(hex, sizeof hex, "%x", value);
    std::string text = hex;
    text += '<';
    bool first = true;
    for (const std::string& name : names(value)) {
        if (!first) text += ',';
        text += name;
        first = false;
    }
    text += '>';
    return text;
}

const BitNames& BitNames::interfaceFlags() {
    static const BitNames table = makeTable({"UP", "BROADCAST", "DEBUG", "LOOPBACK", "POINTOPOINT", "SMART",
                                             "RUNNING", "NOARP", "PROMISC", "ALLMULTI", "OACTIVE", "SIMPLEX",
                                             "LINK0", "LINK1", "LINK2", "MULTICAST"});
    return table;
}

const BitNames& BitNames::capabilities() {
    static const BitNames table =
        makeTable({"RXCSUM", "TXCSUM", "VLAN_MTU", "VLAN_HWTAGGING", "JUMBO_MTU", "TSO4", "TSO6", "LRO", "AV",
                   "TXSTATUS", "CHANNEL_IO", "HW_TIMESTAMP", "SW_TIMESTAMP", "PARTIAL_CSUM", "ZEROINVERT_CSUM",
                   "LRO_NUM_SEG"});
    return table;
}

const BitNames& BitNames::nd6Flags() {
    static const BitNames table = makeTable({"PERFORMNUD", "ACCEPT_RTADV", "PREFER_SOURCE", "IFDISABLED",
                                             "DONT_SET_IFROUTE", "PROXY_PREFIXES", "IGNORE_NA", "INSECURE",
                                             "REPLICATED", "DAD"});
    return table;
}

const std::vector<std::pair<std::uint32_t, std::string>>& ipv6AddressFlagTable() {
    static const std::vector<std::pair<std::uint32_t, std::string>> table = {
        {0x1, "anycast"},     {0x2, "tentative"}, {0x200, "optimistic"}, {0x4, "duplicated"},
        {0x8, "detached"},    {0x10, "deprecated"}, {0x40, "autoconf"},  {0x80, "temporary"},
        {0x100, "dynamic"},   {0x400, "secured"}, {0x1000, "clat46"},
    };
    return table;
}

std::vector<std::string> ipv6AddressFlagNames(std::uint32_t flags) {
    std::vector<std::string> result;
    for (const auto& [mask, name] : ipv6AddressFlagTable()) {
        if ((flags & mask) != 0) result.push_back(name);
    }
    return result;
}

std::vector<std::string> IPv6Address::flagNames() const { return ipv6AddressFlagNames(flags); }

}  // namespace netvane

std::size_t std::hash<netvane::BitNames>::operator()(const netvane::BitNames& v) const noexcept {
    return netvane::hashFields(v.bits);
}
