// One consistent picture of how the system's network configuration names and
// orders things, for labelling interfaces: the services (user-visible names,
// the user's ranking, switched off or hidden, the interface each runs on),
// every configurable interface's names and type, and the primary IPv4 and
// IPv6 interfaces.
//
// read() never fails: a missing piece degrades to an empty or absent field.
// Stateless and synchronous; each call opens and closes its own preferences
// session and store connection, so calls from several threads do not
// interfere. The records are plain values.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "netcore/interfaces/hashing.h"
#include "netcore/sysconfig/dynamic_store.h"
#include "netcore/sysconfig/network_interface_list.h"
#include "netcore/sysconfig/network_preferences.h"

namespace netvane {

struct NetworkService {
    std::string id;
    std::string name;  // the id when the service has no name
    bool enabled = true;
    // For layered interfaces the first BSD name down the chain; for tunnels
    // the interface the running service reports.
    std::optional<std::string> bsdName;
    bool hidden = false;

    bool operator==(const NetworkService&) const = default;
};

struct InterfaceMetadata {
    std::string bsdName;
    std::optional<std::string> displayName;
    std::optional<std::string> interfaceType;
    std::optional<std::string> hardwareAddress;

    bool operator==(const InterfaceMetadata&) const = default;
};

struct NetworkMetadata {
    std::map<std::string, InterfaceMetadata> interfaces;  // by BSD name
    // Configured services in presentation order, then transient ones.
    std::vector<NetworkService> services;
    std::optional<std::string> primaryIPv4Interface;
    std::optional<std::string> primaryIPv6Interface;

    // The first service running on the interface, so a name shared by
    // several services resolves to the highest-ranked visible one.
    std::optional<NetworkService> service(std::string_view bsdName) const;

    bool operator==(const NetworkMetadata&) const = default;
};

// Where a reading comes from; the platform's own unless a test says otherwise.
struct SystemConfigurationSources {
    NetworkInterfaceList* interfaces = nullptr;
    NetworkPreferences* preferences = nullptr;
    DynamicStoreFactory* stores = nullptr;
};

struct SystemConfigurationReader {
    // The client name under which the library opens preferences and stores.
    static constexpr const char* kClientName = "Netvane";

    static NetworkMetadata read();
    static NetworkMetadata read(const SystemConfigurationSources& sources);
    // The services and primary interfaces only, `interfaces` left empty, for
    // callers that show nothing else: the interface list is never read.
    static NetworkMetadata readServicesAndPrimaries();

private:
    static std::vector<NetworkService> readServices(NetworkPreferences& preferences);
    static std::vector<NetworkService> transientServices(DynamicStore& store);
    static void attachTunnels(std::vector<NetworkService>& services, DynamicStore& store);
    static std::optional<std::string> primaryInterface(DynamicStore& store, const std::string& key);
    static std::optional<std::string> underlyingBSDName(const NetworkInterface& interface);
};

}  // namespace netvane

NETVANE_DECLARE_HASH(netvane::NetworkService);
NETVANE_DECLARE_HASH(netvane::InterfaceMetadata);
NETVANE_DECLARE_HASH(netvane::NetworkMetadata);
