#include "netcore/sysconfig/linux/store_view.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <map>

namespace netvane::storeview {
namespace {

constexpr const char* kInterfacePrefix = "State:/Network/Interface/";
constexpr const char* kServiceStatePrefix = "State:/Network/Service/";
constexpr const char* kServiceSetupPrefix = "Setup:/Network/Service/";

std::string netmaskText(unsigned prefixLength) {
    const std::uint32_t bits = prefixLength == 0 ? 0 : ~std::uint32_t{0} << (32 - std::min(prefixLength, 32u));
    in_addr mask{htonl(bits)};
    char text[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &mask, text, sizeof text);
    return text;
}

void put(const KeyMatcher& wanted, plist::Dictionary& out, std::string key, plist::Value value) {
    if (wanted.matches(key)) out.append(std::move(key), std::move(value));
}

// Built entry by entry: GCC 12 misjudges nested variants in initializer lists.
plist::Dictionary entries(std::initializer_list<std::pair<const char*, plist::Value*>> pairs) {
    plist::Dictionary dictionary;
    for (const auto& [key, value] : pairs) dictionary.append(key, std::move(*value));
    return dictionary;
}

}  // namespace

std::string interfaceKey(const std::string& name, const char* entity) {
    return kInterfacePrefix + name + "/" + entity;
}

std::string serviceStateKey(const std::string& uuid, const char* entity) {
    return kServiceStatePrefix + uuid + "/" + entity;
}

std::string serviceSetupKey(const std::string& uuid) { return kServiceSetupPrefix + uuid; }

std::string serviceInterfaceKey(const std::string& uuid) { return serviceSetupKey(uuid) + "/Interface"; }

plist::Value globalValue(const kernel::PrimaryRoute& route) {
    plist::Dictionary value;
    value.append("PrimaryInterface", route.interfaceName);
    if (route.router) value.append("Router", *route.router);
    return value;
}

bool wantsGlobal(const KeyMatcher& wanted) { return wanted.mayMatchUnder("State:/Network/Global/"); }
bool wantsInterfaces(const KeyMatcher& wanted) { return wanted.mayMatchUnder(kInterfaceList); }
bool wantsServices(const KeyMatcher& wanted) {
    return wanted.mayMatchUnder(kServiceStatePrefix) || wanted.mayMatchUnder(kServiceSetupPrefix);
}

void collectGlobal(nv_nl_socket_t* routing, const KeyMatcher& wanted, plist::Dictionary& out) {
    for (const auto& [key, family] : {std::pair{kGlobalIPv4, AF_INET}, std::pair{kGlobalIPv6, AF_INET6}}) {
        if (!wanted.matches(key)) continue;
        if (auto route = kernel::primaryRoute(routing, static_cast<unsigned char>(family))) {
            out.append(key, globalValue(*route));
        }
    }
}

void collectInterfaces(nv_nl_socket_t* routing, const KeyMatcher& wanted, plist::Dictionary& out) {
    const auto links = kernel::dumpLinks(routing);
    if (!links) return;
    plist::Array names;
    for (const kernel::Link& link : *links) names.push_back(link.name);
    plist::Value list(std::move(names));
    put(wanted, out, kInterfaceList, entries({{"Interfaces", &list}}));
    if (!wanted.mayMatchUnder(kInterfacePrefix)) return;

    std::map<int, std::pair<plist::Array, plist::Array>> ipv4, ipv6;  // addresses, masks or prefixes
    if (const auto addresses = kernel::dumpAddresses(routing, AF_UNSPEC)) {
        for (const kernel::Address& address : *addresses) {
            auto& [list, extra] = (address.family == AF_INET ? ipv4 : ipv6)[address.index];
            list.emplace_back(address.address);
            if (address.family == AF_INET) {
                extra.emplace_back(netmaskText(address.prefixLength));
            } else {
                extra.emplace_back(static_cast<int>(address.prefixLength));
            }
        }
    }
    for (const kernel::Link& link : *links) {
        plist::Value active(link.active());
        put(wanted, out, interfaceKey(link.name, "Link"), entries({{"Active", &active}}));
        for (auto* family : {&ipv4, &ipv6}) {
            const auto it = family->find(link.index);
            if (it == family->end()) continue;
            plist::Value addresses(std::move(it->second.first)), extra(std::move(it->second.second));
            const bool v4 = family == &ipv4;
            put(wanted, out, interfaceKey(link.name, v4 ? "IPv4" : "IPv6"),
                entries({{"Addresses", &addresses}, {v4 ? "SubnetMasks" : "PrefixLength", &extra}}));
        }
    }
}

void collectServices(const nm::State& state, const KeyMatcher& wanted, plist::Dictionary& out) {
    for (const nm::ActiveConnection& active : state.active) {
        if (!active.activated() || !active.interfaceName) continue;
        plist::Value name(*active.interfaceName);
        const plist::Dictionary value = entries({{"InterfaceName", &name}});
        if (active.ipv4) put(wanted, out, serviceStateKey(active.uuid, "IPv4"), value);
        if (active.ipv6) put(wanted, out, serviceStateKey(active.uuid, "IPv6"), value);
    }
    for (const nm::Profile& profile : state.profiles) {
        plist::Dictionary service = nm::serviceEntity(profile);
        if (const plist::Value* interface = service.find("Interface")) {
            put(wanted, out, serviceInterfaceKey(profile.uuid), *interface);
        }
        plist::Dictionary setup;
        for (const auto& [key, value] : service) {
            if (key != "Interface") setup.append(key, value);
        }
        put(wanted, out, serviceSetupKey(profile.uuid), std::move(setup));
    }
}

}  // namespace netvane::storeview
