// One reading of one network interface, and its parts: addresses, counters,
// media state and functional type. Plain values with memberwise equality and
// hashing; the interface reader fills them, the counter delta tracker and the
// rate history consume the counters. They are never persisted as such.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "netcore/interfaces/hashing.h"

namespace netvane {

struct IPv4Address {
    std::string address = "0.0.0.0";
    std::optional<std::string> netmask;
    std::optional<int> prefixLength;
    std::optional<std::string> broadcast;  // never "0.0.0.0"
    std::optional<std::string> destination;

    bool operator==(const IPv4Address&) const = default;
};

struct IPv6Address {
    std::string address;  // without a zone suffix
    std::optional<int> prefixLength;
    std::uint32_t scopeID = 0;
    std::uint32_t flags = 0;

    // Names of the set address flags, in the display order of bit_names.h.
    std::vector<std::string> flagNames() const;

    bool operator==(const IPv6Address&) const = default;
};

struct LinkAddress {
    std::vector<std::uint8_t> bytes;  // at most 32
    std::uint8_t type = 0;

    // "00:1a:ff"; "" for an empty address.
    std::string description() const;

    bool operator==(const LinkAddress&) const = default;
};

struct InterfaceCounters {
    std::uint64_t bytesIn = 0;
    std::uint64_t bytesOut = 0;
    std::uint64_t packetsIn = 0;
    std::uint64_t packetsOut = 0;
    std::uint64_t errorsIn = 0;
    std::uint64_t errorsOut = 0;
    std::uint64_t multicastIn = 0;
    std::uint64_t multicastOut = 0;
    std::uint64_t collisions = 0;
    std::uint64_t dropsIn = 0;

    bool operator==(const InterfaceCounters&) const = default;
};

// unknown: the status word had no valid bit.
enum class MediaStatus { unknown, active, inactive };

struct MediaInfo {
    std::string current;
    std::optional<std::string> active;  // only when it differs from current
    MediaStatus status = MediaStatus::unknown;

    // "autoselect" or "autoselect (1000baseT <full-duplex>)".
    std::string description() const;

    bool operator==(const MediaInfo&) const = default;
};

enum class FunctionalType : std::uint32_t {
    unknown = 0,
    loopback = 1,
    wired = 2,
    wifiInfra = 3,
    wifiAWDL = 4,
    cellular = 5,
    intcoproc = 6,
    companionLink = 7,
    management = 8,
};

// No case for raw values of 9 and above.
std::optional<FunctionalType> functionalTypeFromRaw(std::uint32_t raw);

struct InterfaceSnapshot {
    std::string name;
    std::uint32_t index = 0;
    std::uint32_t flags = 0;
    std::uint32_t mtu = 0;
    std::uint8_t ifType = 0;
    std::uint64_t baudrate = 0;
    InterfaceCounters counters;
    std::optional<LinkAddress> linkAddress;
    std::vector<IPv4Address> ipv4;
    std::vector<IPv6Address> ipv6;
    std::optional<MediaInfo> media;
    std::optional<std::uint32_t> capabilities;
    std::optional<std::uint32_t> nd6Flags;
    FunctionalType functionalType = FunctionalType::unknown;

    const std::string& id() const { return name; }

    bool hasFlag(std::int32_t flag) const { return (flags & static_cast<std::uint32_t>(flag)) != 0; }
    bool isUp() const { return hasFlag(kFlagUp); }
    bool isRunning() const { return hasFlag(kFlagRunning); }
    bool isLoopback() const { return hasFlag(kFlagLoopback); }
    bool isPointToPoint() const { return hasFlag(kFlagPointToPoint); }
    // Up and running, and the medium (when reported) is not known to be down.
    bool isLinkActive() const;

    bool operator==(const InterfaceSnapshot&) const = default;

    // The interface flag bits used above; they match the kernel's IFF_* values.
    static constexpr std::int32_t kFlagUp = 0x1;
    static constexpr std::int32_t kFlagLoopback = 0x8;
    static constexpr std::int32_t kFlagPointToPoint = 0x10;
    static constexpr std::int32_t kFlagRunning = 0x40;
};

}  // namespace netvane

NETVANE_DECLARE_HASH(netvane::IPv4Address);
NETVANE_DECLARE_HASH(netvane::IPv6Address);
NETVANE_DECLARE_HASH(netvane::LinkAddress);
NETVANE_DECLARE_HASH(netvane::InterfaceCounters);
NETVANE_DECLARE_HASH(netvane::MediaInfo);
NETVANE_DECLARE_HASH(netvane::InterfaceSnapshot);
