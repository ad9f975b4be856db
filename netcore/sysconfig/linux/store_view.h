// Linux networking seen as a dynamic store: which keys exist and what their
// values say, computed from the kernel and NetworkManager when asked.
//
// | key                                        | value                                       |
// |--------------------------------------------|---------------------------------------------|
// | State:/Network/Global/IPv4, .../IPv6       | "PrimaryInterface", "Router" (when routed)  |
// | State:/Network/Interface                   | "Interfaces": every link's name             |
// | State:/Network/Interface/<name>/Link       | "Active": up and running                    |
// | State:/Network/Interface/<name>/IPv4       | "Addresses", "SubnetMasks" (when any)       |
// | State:/Network/Interface/<name>/IPv6       | "Addresses", "PrefixLength" (when any)      |
// | State:/Network/Service/<uuid>/IPv4, /IPv6  | "InterfaceName" of an activated connection  |
// |                                            | with that family configured                 |
// | Setup:/Network/Service/<uuid>              | the profile's service entity (every profile,|
// | Setup:/Network/Service/<uuid>/Interface    | saved or not), and its interface entity     |
#pragma once

#include <string>

#include "netcore/sysconfig/dynamic_store.h"
#include "netcore/sysconfig/linux/kernel_network.h"
#include "netcore/sysconfig/linux/network_manager.h"
#include "support/plist/value.h"

namespace netvane::storeview {

inline constexpr const char* kGlobalIPv4 = "State:/Network/Global/IPv4";
inline constexpr const char* kGlobalIPv6 = "State:/Network/Global/IPv6";
inline constexpr const char* kInterfaceList = "State:/Network/Interface";

std::string interfaceKey(const std::string& name, const char* entity);
std::string serviceStateKey(const std::string& uuid, const char* entity);
std::string serviceSetupKey(const std::string& uuid);
std::string serviceInterfaceKey(const std::string& uuid);

plist::Value globalValue(const kernel::PrimaryRoute& route);

// Adds every key of the family that the matcher takes, with its value.
void collectGlobal(nv_nl_socket_t* routing, const KeyMatcher& wanted, plist::Dictionary& out);
void collectInterfaces(nv_nl_socket_t* routing, const KeyMatcher& wanted, plist::Dictionary& out);
void collectServices(const nm::State& state, const KeyMatcher& wanted, plist::Dictionary& out);

// Whether a family can hold a key the matcher takes.
bool wantsGlobal(const KeyMatcher& wanted);
bool wantsInterfaces(const KeyMatcher& wanted);
bool wantsServices(const KeyMatcher& wanted);

}  // namespace netvane::storeview
