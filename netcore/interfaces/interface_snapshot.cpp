#include "netcore/interfaces/interface_snapshot.h"

#include <cstdio>

namespace netvane {

std::string LinkAddress::description() const {
    std::string text;
    text.reserve(bytes.size() * 3);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02x", bytes[i]);
        if (i > 0) text += ':';
        text += hex;
    }
    return text;
}

std::string MediaInfo::description() const {
    if (!active) return current;
    return current + " (" + *active + ")";
}

std::optional<FunctionalType> functionalTypeFromRaw(std::uint32_t raw) {
    if (raw > static_cast<std::uint32_t>(FunctionalType::management)) return std::nullopt;
    return static_cast<FunctionalType>(raw);
}

bool InterfaceSnapshot::isLinkActive() const {
    if (!isUp() || !isRunning()) return false;
    return !media || media->status != MediaStatus::inactive;
}

}  // namespace netvane

using netvane::hashFields;

std::size_t std::hash<netvane::IPv4Address>::operator()(const netvane::IPv4Address& v) const noexcept {
    return hashFields(v.address, v.netmask, v.prefixLength, v.broadcast, v.destination);
}

std::size_t std::hash<netvane::IPv6Address>::operator()(const netvane::IPv6Address& v) const noexcept {
    return hashFields(v.address, v.prefixLength, v.scopeID, v.flags);
}

std::size_t std::hash<netvane::LinkAddress>::operator()(const netvane::LinkAddress& v) const noexcept {
    return hashFields(v.bytes, v.type);
}

std::size_t std::hash<netvane::InterfaceCounters>::operator()(const netvane::InterfaceCounters& v) const noexcept {
    return hashFields(v.bytesIn, v.bytesOut, v.packetsIn, v.packetsOut, v.errorsIn, v.errorsOut, v.multicastIn,
                      v.multicastOut, v.collisions, v.dropsIn);
}

std::size_t std::hash<netvane::MediaInfo>::operator()(const netvane::MediaInfo& v) const noexcept {
    return hashFields(v.current, v.active, v.status);
}

std::size_t std::hash<netvane::InterfaceSnapshot>::operator()(const netvane::InterfaceSnapshot& v) const noexcept {
    return hashFields(v.name, v.index, v.flags, v.mtu, v.ifType, v.baudrate, v.counters, v.linkAddress, v.ipv4,
                      v.ipv6, v.media, v.capabilities, v.nd6Flags, v.functionalType);
}
