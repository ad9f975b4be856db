#include "interface_report.h"

#include <cinttypes>
#include <string_view>

#include "io.h"
#include "netcore/interfaces/bit_names.h"
#include "support/unicode.h"

namespace netvane::cli {
namespace {

void writeBits(JsonWriter& json, std::uint32_t value, const std::vector<std::string>& names) {
    json.beginObject();
    json.key("value");
    json.number(std::uint64_t{value});
    json.key("names");
    json.beginArray();
    for (const std::string& name : names) json.string(name);
    json.endArray();
    json.endObject();
}

const char* mediaStatusName(MediaStatus status) {
    switch (status) {
        case MediaStatus::active: return "active";
        case MediaStatus::inactive: return "inactive";
        case MediaStatus::unknown: break;
    }
    return "unknown";
}

void writeCounters(JsonWriter& json, const InterfaceCounters& c) {
    const std::pair<const char*, std::uint64_t> fields[] = {
        {"bytesIn", c.bytesIn},         {"bytesOut", c.bytesOut},         {"packetsIn", c.packetsIn},
        {"packetsOut", c.packetsOut},   {"errorsIn", c.errorsIn},         {"errorsOut", c.errorsOut},
        {"multicastIn", c.multicastIn}, {"multicastOut", c.multicastOut}, {"collisions", c.collisions},
        {"dropsIn", c.dropsIn}};
    json.beginObject();
    for (const auto& [name, value] : fields) {
        json.key(name);
        json.number(value);
    }
    json.endObject();
}

void writeIfPresent(JsonWriter& json, const char* key, const std::optional<int>& value) {
    if (!value) return;
    json.key(key);
    json.number(std::int64_t{*value});
}
// Beside the text overload the header declares.
using cli::writeIfPresent;

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : ",") + name;
    return text;
}

void writeIPv4(JsonWriter& json, const IPv4Address& a) {
    json.beginObject();
    json.key("address");
    json.string(a.address);
    writeIfPresent(json, "netmask", a.netmask);
    writeIfPresent(json, "prefixLength", a.prefixLength);
    writeIfPresent(json, "broadcast", a.broadcast);
    writeIfPresent(json, "destination", a.destination);
    json.endObject();
}

void writeIPv6(JsonWriter& json, const IPv6Address& a) {
    json.beginObject();
    json.key("address");
    json.string(a.address);
    writeIfPresent(json, "prefixLength", a.prefixLength);
    json.key("scopeID");
    json.number(std::uint64_t{a.scopeID});
    json.key("flags");
    writeBits(json, a.flags, a.flagNames());
    json.endObject();
}

}  // namespace

void writeIfPresent(JsonWriter& json, const char* key, const std::optional<std::string>& value) {
    if (!value) return;
    json.key(key);
    json.string(*value);
}

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

void writeSnapshot(JsonWriter& json, const InterfaceSnapshot& s) {
    json.beginObject();
    json.key("name");
    json.string(s.name);
    json.key("index");
    json.number(std::uint64_t{s.index});
    json.key("flags");
    writeBits(json, s.flags, BitNames::interfaceFlags().names(s.flags));
    json.key("mtu");
    json.number(std::uint64_t{s.mtu});
    json.key("ifType");
    json.number(std::uint64_t{s.ifType});
    json.key("baudrate");
    json.number(s.baudrate);
    json.key("counters");
    writeCounters(json, s.counters);
    if (s.linkAddress) {
        json.key("linkAddress");
        json.beginObject();
        json.key("address");
        json.string(s.linkAddress->description());
        json.key("type");
        json.number(std::uint64_t{s.linkAddress->type});
        json.endObject();
    }
    json.key("ipv4");
    json.beginArray();
    for (const IPv4Address& a : s.ipv4) writeIPv4(json, a);
    json.endArray();
    json.key("ipv6");
    json.beginArray();
    for (const IPv6Address& a : s.ipv6) writeIPv6(json, a);
    json.endArray();
    if (s.media) {
        json.key("media");
        json.beginObject();
        json.key("current");
        json.string(s.media->current);
        writeIfPresent(json, "active", s.media->active);
        json.key("status");
        json.string(mediaStatusName(s.media->status));
        json.key("description");
        json.string(s.media->description());
        json.endObject();
    }
    if (s.capabilities) {
        json.key("capabilities");
        writeBits(json, *s.capabilities, BitNames::capabilities().names(*s.capabilities));
    }
    if (s.nd6Flags) {
        json.key("nd6Flags");
        writeBits(json, *s.nd6Flags, BitNames::nd6Flags().names(*s.nd6Flags));
    }
    json.key("functionalType");
    json.string(functionalTypeName(s.functionalType));
    json.key("linkActive");
    json.boolean(s.isLinkActive());
    json.endObject();
}

plist::Value tunnelOwnersValue(const TunnelOwnerMap& owners) {
    plist::Dictionary d;
    for (const auto& [interface, owner] : owners) d.append(interface, owner.encode());
    return d;
}

void printSnapshot(const InterfaceSnapshot& s) {
    printFormatted("%s: flags=%s index %u mtu %u\n", terminalText(s.name).c_str(),
                   BitNames::interfaceFlags().format(s.flags).c_str(), s.index, s.mtu);
    printFormatted("\ttype %u  functional type %s  baudrate %" PRIu64 "\n", static_cast<unsigned>(s.ifType),
                   functionalTypeName(s.functionalType).c_str(), s.baudrate);
    if (s.linkAddress) {
        printFormatted("\tlink %s (type %u)\n", s.linkAddress->description().c_str(),
                       static_cast<unsigned>(s.linkAddress->type));
    }
    for (const IPv4Address& a : s.ipv4) {
        printFormatted("\tinet %s", a.address.c_str());
        if (a.destination) printFormatted(" --> %s", a.destination->c_str());
        if (a.netmask) printFormatted(" netmask %s", a.netmask->c_str());
        if (a.prefixLength) printFormatted(" prefixlen %d", *a.prefixLength);
        if (a.broadcast) printFormatted(" broadcast %s", a.broadcast->c_str());
        print("\n");
    }
    for (const IPv6Address& a : s.ipv6) {
        printFormatted("\tinet6 %s", a.address.c_str());
        if (a.prefixLength) printFormatted(" prefixlen %d", *a.prefixLength);
        if (a.scopeID != 0) printFormatted(" scopeid 0x%x", a.scopeID);
        std::vector<std::string> names = a.flagNames();
        if (!names.empty()) printFormatted(" <%s>", joined(names).c_str());
        print("\n");
    }
    if (s.media) {
        printFormatted("\tmedia: %s  status: %s\n", s.media->description().c_str(), mediaStatusName(s.media->status));
    }
    if (s.capabilities) printFormatted("\toptions=%s\n", BitNames::capabilities().format(*s.capabilities).c_str());
    if (s.nd6Flags) printFormatted("\tnd6 options=%s\n", BitNames::nd6Flags().format(*s.nd6Flags).c_str());
    const InterfaceCounters& c = s.counters;
    printFormatted("\tin  %" PRIu64 " bytes  %" PRIu64 " packets  %" PRIu64 " errors  %" PRIu64 " multicast  %" PRIu64
                   " drops\n",
                   c.bytesIn, c.packetsIn, c.errorsIn, c.multicastIn, c.dropsIn);
    printFormatted("\tout %" PRIu64 " bytes  %" PRIu64 " packets  %" PRIu64 " errors  %" PRIu64 " multicast  %" PRIu64
                   " collisions\n",
                   c.bytesOut, c.packetsOut, c.errorsOut, c.multicastOut, c.collisions);
}

void printTunnelOwners(const TunnelOwnerMap& owners) {
    if (owners.empty()) {
        print("no tunnel owners found\n");
        return;
    }
    for (const auto& [interface, owner] : owners) {
        printFormatted("%s: pid %d  %s  %s\n", terminalText(interface).c_str(), owner.pid,
                       owner.name.empty() ? "-" : terminalText(owner.name).c_str(),
                       owner.path.empty() ? "-" : terminalText(owner.path).c_str());
    }
}

std::string tunnelVisibilityNote() {
    return "as a user other than root the list is empty: only root can ask a tunnel which network namespace it "
           "lives in; run as root, or ask the daemon with 'netvane admin app tunnels'";
}

}  // namespace netvane::cli
