// The interface-list seam: every network interface the system can configure,
// as the system's configuration layer describes it. Implementations: the
// kernel's links on Linux, the configuration framework on macOS, a fake in
// tests.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace netvane {

struct NetworkInterface {
    std::optional<std::string> bsdName;
    std::optional<std::string> displayName;      // for people: an alias, else a kind ("Ethernet")
    std::optional<std::string> interfaceType;    // "Ethernet", "IEEE80211", "Bridge", "VLAN", ...
    std::optional<std::string> hardwareAddress;  // lower-case hex pairs joined by ':'
    // The interface this one is layered on: none, or exactly one.
    std::vector<NetworkInterface> underlying;

    bool operator==(const NetworkInterface&) const = default;
};

class NetworkInterfaceList {
public:
    virtual ~NetworkInterfaceList() = default;
    // Every configurable interface in the system's order; nothing when the
    // list cannot be had at all. Callable from any thread.
    virtual std::optional<std::vector<NetworkInterface>> copyAll() = 0;
};

// This platform's list; shared and stateless.
NetworkInterfaceList& systemNetworkInterfaces();

// How far a description follows an interface down to the ones it is layered
// on. Real stacks are two or three deep (a point-to-point link over a modem
// over a serial port); a longer or circular chain is the system's own
// inconsistency and is cut here rather than followed for ever.
inline constexpr std::size_t kMaxInterfaceLayers = 8;

// Describes `top` and the chain below it, at most kMaxInterfaceLayers in
// all: `describe(handle)` gives one layer's own fields, `below(handle)` the
// handle of the layer underneath, or a null handle at the bottom.
template <typename Handle, typename Describe, typename Below>
NetworkInterface describeInterfaceChain(Handle top, Describe describe, Below below) {
    NetworkInterface chain = describe(top);
    chain.underlying.clear();
    NetworkInterface* layer = &chain;
    Handle next = below(top);
    for (std::size_t depth = 1; next && depth < kMaxInterfaceLayers; ++depth) {
        NetworkInterface lower = describe(next);
        lower.underlying.clear();
        layer->underlying.assign(1, std::move(lower));
        layer = &layer->underlying.front();
        next = below(next);
    }
    return chain;
}

}  // namespace netvane
