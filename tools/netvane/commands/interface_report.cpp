#include "interface_report.h"

#include <cinttypes>
#include <string_view>

#include "netcore/interfaces/bit_names.h"

namespace netvane::cli {
namespace {

plist::Array stringArray(const std::vector<std::string>& names) { return plist::Array(names.begin(), names.end()); }

plist::Value bitsValue(std::uint32_t value, const BitNames& table) {
    return plist::Dictionary{{"value", value}, {"names", stringArray(table.names(value))}};
}

const char* mediaStatusName(MediaStatus status) {
    switch (status) {
        case MediaStatus::active: return "active";
        case MediaStatus::inactive: return "inactive";
        case MediaStatus::unknown: break;
    }
    return "unknown";
}

plist::Value countersValue(const InterfaceCounters& c) {
    return plist::Dictionary{{"bytesIn", c.bytesIn},         {"bytesOut", c.bytesOut},
                             {"packetsIn", c.packetsIn},     {"packetsOut", c.packetsOut},
                             {"errorsIn", c.errorsIn},       {"errorsOut", c.errorsOut},
                             {"multicastIn", c.multicastIn}, {"multicastOut", c.multicastOut},
                             {"collisions", c.collisions},   {"dropsIn", c.dropsIn}};
}

template <class T>
void appendIfPresent(plist::Dictionary& dictionary, const char* key, const std::optional<T>& value) {
    if (value) dictionary.append(key, *value);
}

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ",") + name;
    return text;
}

plist::Value ipv4Value(const IPv4Address& a) {
    plist::Dictionary d{{"address", a.address}};
    appendIfPresent(d, "netmask", a.netmask);
    appendIfPresent(d, "prefixLength", a.prefixLength);
    appendIfPresent(d, "broadcast", a.broadcast);
    appendIfPresent(d, "destination", a.destination);
    return d;
}

plist::Value ipv6Value(const IPv6Address& a) {
    plist::Dictionary d{{"address", a.address}};
    appendIfPresent(d, "prefixLength", a.prefixLength);
    d.append("scopeID", a.scopeID);
    d.append("flags", plist::Dictionary{{"value", a.flags}, {"names", stringArray(a.flagNames())}});
    return d;
}

}  // namespace

std::string functionalTypeName(FunctionalType type) {
    switch (type) {
        case FunctionalType::unknown: return "unknown";
        case FunctionalType::loopback: return "loopback";
        case FunctionalType::wired: return "wired";
        case FunctionalType::wifiInfra: return "wifiInfra";
        case FunctionalType::wifiAWDL: return "wifiAWDL";
        case FunctionalType::cellular: return "cellular";
        case FunctionalType::intcoproc: return "intcoproc";
        case FunctionalType::companionLink: return "companionLink";
        case FunctionalType::management: return "management";
    }
    return "unknown";
}

plist::Value snapshotValue(const InterfaceSnapshot& s) {
    plist::Dictionary d{{"name", s.name},
                        {"index", s.index},
                        {"flags", bitsValue(s.flags, BitNames::interfaceFlags())},
                        {"mtu", s.mtu},
                        {"ifType", static_cast<unsigned>(s.ifType)},
                        {"baudrate", s.baudrate},
                        {"counters", countersValue(s.counters)}};
    if (s.linkAddress) {
        d.append("linkAddress", plist::Dictionary{{"address", s.linkAddress->description()},
                                                  {"type", static_cast<unsigned>(s.linkAddress->type)}});
    }
    plist::Array v4, v6;
    for (const IPv4Address& a : s.ipv4) v4.push_back(ipv4Value(a));
    for (const IPv6Address& a : s.ipv6) v6.push_back(ipv6Value(a));
    d.append("ipv4", std::move(v4));
    d.append("ipv6", std::move(v6));
    if (s.media) {
        plist::Dictionary media{{"current", s.media->current}};
        appendIfPresent(media, "active", s.media->active);
        media.append("status", mediaStatusName(s.media->status));
        media.append("description", s.media->description());
        d.append("media", std::move(media));
    }
    if (s.capabilities) d.append("capabilities", bitsValue(*s.capabilities, BitNames::capabilities()));
    if (s.nd6Flags) d.append("nd6Flags", bitsValue(*s.nd6Flags, BitNames::nd6Flags()));
    d.append("functionalType", functionalTypeName(s.functionalType));
    d.append("linkActive", s.isLinkActive());
    return d;
}

plist::Value tunnelOwnersValue(const TunnelOwnerMap& owners) {
    plist::Dictionary d;
    for (const auto& [interface, owner] : owners) d.append(interface, owner.encode());
    return d;
}

void printSnapshot(std::FILE* out, const InterfaceSnapshot& s) {
    std::fprintf(out, "%s: flags=%s index %u mtu %u\n", s.name.c_str(), BitNames::interfaceFlags().format(s.flags).c_str(),
                 s.index, s.mtu);
    std::fprintf(out, "\ttype %u  functional type %s  baudrate %" PRIu64 "\n", static_cast<unsigned>(s.ifType),
                 functionalTypeName(s.functionalType).c_str(), s.baudrate);
    if (s.linkAddress) {
        std::fprintf(out, "\tlink %s (type %u)\n", s.linkAddress->description().c_str(),
                     static_cast<unsigned>(s.linkAddress->type));
    }
    for (const IPv4Address& a : s.ipv4) {
        std::fprintf(out, "\tinet %s", a.address.c_str());
        if (a.destination) std::fprintf(out, " --> %s", a.destination->c_str());
        if (a.netmask) std::fprintf(out, " netmask %s", a.netmask->c_str());
        if (a.prefixLength) std::fprintf(out, " prefixlen %d", *a.prefixLength);
        if (a.broadcast) std::fprintf(out, " broadcast %s", a.broadcast->c_str());
        std::fprintf(out, "\n");
    }
    for (const IPv6Address& a : s.ipv6) {
        std::fprintf(out, "\tinet6 %s", a.address.c_str());
        if (a.prefixLength) std::fprintf(out, " prefixlen %d", *a.prefixLength);
        if (a.scopeID != 0) std::fprintf(out, " scopeid 0x%x", a.scopeID);
        std::vector<std::string> names = a.flagNames();
        if (!names.empty()) std::fprintf(out, " <%s>", joined(names).c_str());
        std::fprintf(out, "\n");
    }
    if (s.media) {
        std::fprintf(out, "\tmedia: %s  status: %s\n", s.media->description().c_str(), mediaStatusName(s.media->status));
    }
    if (s.capabilities) std::fprintf(out, "\toptions=%s\n", BitNames::capabilities().format(*s.capabilities).c_str());
    if (s.nd6Flags) std::fprintf(out, "\tnd6 options=%s\n", BitNames::nd6Flags().format(*s.nd6Flags).c_str());
    const InterfaceCounters& c = s.counters;
    std::fprintf(out, "\tin  %" PRIu64 " bytes  %" PRIu64 " packets  %" PRIu64 " errors  %" PRIu64 " multicast  %" PRIu64
                      " drops\n",
                 c.bytesIn, c.packetsIn, c.errorsIn, c.multicastIn, c.dropsIn);
    std::fprintf(out, "\tout %" PRIu64 " bytes  %" PRIu64 " packets  %" PRIu64 " errors  %" PRIu64 " multicast  %" PRIu64
                      " collisions\n",
                 c.bytesOut, c.packetsOut, c.errorsOut, c.multicastOut, c.collisions);
}

void printTunnelOwners(std::FILE* out, const TunnelOwnerMap& owners) {
    if (owners.empty()) {
        std::fprintf(out, "no tunnel owners found\n");
        return;
    }
    for (const auto& [interface, owner] : owners) {
        std::fprintf(out, "%s: pid %d  %s  %s\n", interface.c_str(), owner.pid,
                     owner.name.empty() ? "-" : owner.name.c_str(), owner.path.empty() ? "-" : owner.path.c_str());
    }
}

bool parseJsonFlag(const std::vector<std::string_view>& args, bool& json, std::string& problem) {
    for (std::string_view arg : args) {
        if (arg == "--json") {
            json = true;
        } else {
            problem = "unknown argument '" + std::string(arg) + "'";
            return false;
        }
    }
    return true;
}

}  // namespace netvane::cli
