// The interface-list seam: every network interface the system can configure,
// as the system's configuration layer describes it. Implementations: the
// kernel's links on Linux, the configuration framework on macOS, a fake in
// tests.
#pragma once

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

}  // namespace netvane
