#include "netcore/sysconfig/system_configuration_reader.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <set>
#include <unordered_map>

namespace netvane {
namespace {

constexpr const char* kTransientInterfacePattern = "Setup:/Network/Service/[^/]+/Interface";
constexpr const char* kGlobalIPv4 = "State:/Network/Global/IPv4";
constexpr const char* kGlobalIPv6 = "State:/Network/Global/IPv6";

const std::string* stringEntry(const plist::Value& dictionary, std::string_view key) {
    const plist::Value* value = dictionary.find(key);
    return value ? value->string() : nullptr;
}

// The pieces of a store key between slashes, empty pieces left out.
std::vector<std::string_view> keyPieces(std::string_view key) {
    std::vector<std::string_view> pieces;
    std::size_t start = 0;
    while (start <= key.size()) {
        const std::size_t end = std::min(key.find('/', start), key.size());
        if (end > start) pieces.push_back(key.substr(start, end - start));
        start = end + 1;
    }
    return pieces;
}

}  // namespace

std::optional<NetworkService> NetworkMetadata::service(std::string_view bsdName) const {
    for (const NetworkService& candidate : services) {
        if (candidate.bsdName && *candidate.bsdName == bsdName) return candidate;
    }
    return std::nullopt;
}

NetworkMetadata SystemConfigurationReader::read() {
    return read(SystemConfigurationSources{&systemNetworkInterfaces(), systemNetworkPreferences().get(),
                                           &systemDynamicStores()});
}

NetworkMetadata SystemConfigurationReader::readServicesAndPrimaries() {
    return read(SystemConfigurationSources{nullptr, systemNetworkPreferences().get(), &systemDynamicStores()});
}

NetworkMetadata SystemConfigurationReader::read(const SystemConfigurationSources& sources) {
    NetworkMetadata metadata;
    if (sources.interfaces) {
        if (auto all = sources.interfaces->copyAll()) {
            for (NetworkInterface& interface : *all) {
                if (!interface.bsdName) continue;
                // A later interface of the same name replaces the earlier one.
                metadata.interfaces.insert_or_assign(
                    *interface.bsdName, InterfaceMetadata{*interface.bsdName, std::move(interface.displayName),
                                                          std::move(interface.interfaceType),
                                                          std::move(interface.hardwareAddress)});
            }
        }
    }
    if (sources.preferences) metadata.services = readServices(*sources.preferences);

    std::unique_ptr<DynamicStore> store = sources.stores ? sources.stores->create(kClientName, {}) : nullptr;
    if (!store) return metadata;
    std::set<std::string> configured;
    for (const NetworkService& service : metadata.services) configured.insert(service.id);
    for (NetworkService& service : transientServices(*store)) {
        if (!configured.contains(service.id)) metadata.services.push_back(std::move(service));
    }
    attachTunnels(metadata.services, *store);
    metadata.primaryIPv4Interface = primaryInterface(*store, kGlobalIPv4);
    metadata.primaryIPv6Interface = primaryInterface(*store, kGlobalIPv6);
    return metadata;
}

std::vector<NetworkService> SystemConfigurationReader::readServices(NetworkPreferences& preferences) {
    auto opened = preferences.open(kClientName);
    if (!opened) return {};
    NetworkPreferencesSession& session = **opened;
    auto listed = session.currentSetServices();
    if (!listed) return {};

    std::unordered_map<std::string, std::size_t> rank;
    const auto order = session.currentSetServiceOrder().value_or(std::vector<std::string>{});
    for (std::size_t position = 0; position < order.size(); ++position) {
        rank.try_emplace(order[position], position);  // the first position counts
    }

    struct Ranked {
        NetworkService service;
        std::size_t rank;
    };
    std::vector<Ranked> ranked;
    for (PreferencesService& entry : *listed) {
        if (!entry.serviceID) continue;
        NetworkService service;
        service.id = *entry.serviceID;
        service.name = entry.name.value_or(service.id);
        service.enabled = entry.enabled;
        if (entry.interface) service.bsdName = underlyingBSDName(*entry.interface);
        service.hidden = isHidden(session, service.id);
        const auto found = rank.find(service.id);
        ranked.push_back(Ranked{std::move(service),
                                found == rank.end() ? std::numeric_limits<std::size_t>::max() : found->second});
    }
    std::stable_sort(ranked.begin(), ranked.end(), [](const Ranked& a, const Ranked& b) {
        if (a.service.hidden != b.service.hidden) return !a.service.hidden;
        return a.rank < b.rank;
    });
    std::vector<NetworkService> services;
    services.reserve(ranked.size());
    for (Ranked& entry : ranked) services.push_back(std::move(entry.service));
    return services;
}

std::vector<NetworkService> SystemConfigurationReader::transientServices(DynamicStore& store) {
    const auto found = store.copyMultiple({}, {kTransientInterfacePattern});
    if (!found || !found->dictionary()) return {};
    std::vector<NetworkService> services;
    for (const auto& [key, value] : *found->dictionary()) {
        if (!value.dictionary()) continue;
        const std::string* deviceName = stringEntry(value, "DeviceName");
        if (!deviceName) continue;
        const std::vector<std::string_view> pieces = keyPieces(key);
        // The pattern admits only keys of five pieces.
        if (pieces.size() < 4) std::abort();
        NetworkService service;
        service.id = std::string(pieces[3]);
        const std::string* userName = stringEntry(value, "UserDefinedName");
        service.name = userName ? *userName : *deviceName;
        const auto setup = store.copyValue("Setup:/Network/Service/" + service.id);
        service.enabled = !(setup && setup->dictionary() && setup->find("__INACTIVE__"));
        service.bsdName = *deviceName;
        const plist::Value* hidden = value.find("HiddenConfiguration");
        service.hidden = hidden && hidden->boolean().value_or(false);
        services.push_back(std::move(service));
    }
    std::sort(services.begin(), services.end(),
              [](const NetworkService& a, const NetworkService& b) { return a.id < b.id; });
    return services;
}

void SystemConfigurationReader::attachTunnels(std::vector<NetworkService>& services, DynamicStore& store) {
    for (NetworkService& service : services) {
        if (service.bsdName) continue;
        for (const char* entity : {"IPv4", "IPv6"}) {
            const auto state = store.copyValue("State:/Network/Service/" + service.id + "/" + entity);
            if (!state || !state->dictionary()) continue;
            if (const std::string* name = stringEntry(*state, "InterfaceName")) {
                service.bsdName = *name;
                break;
            }
        }
    }
}

std::optional<std::string> SystemConfigurationReader::primaryInterface(DynamicStore& store, const std::string& key) {
    const auto value = store.copyValue(key);
    if (!value || !value->dictionary()) return std::nullopt;
    const std::string* primary = stringEntry(*value, "PrimaryInterface");
    if (!primary) return std::nullopt;
    return *primary;
}

std::optional<std::string> SystemConfigurationReader::underlyingBSDName(const NetworkInterface& interface) {
    const NetworkInterface* layer = &interface;
    for (;;) {
        if (layer->bsdName) return layer->bsdName;
        if (layer->underlying.empty()) return std::nullopt;
        layer = &layer->underlying.front();
    }
}

}  // namespace netvane

std::size_t std::hash<netvane::NetworkService>::operator()(const netvane::NetworkService& s) const noexcept {
    return netvane::hashFields(s.id, s.name, s.enabled, s.bsdName, s.hidden);
}

std::size_t std::hash<netvane::InterfaceMetadata>::operator()(const netvane::InterfaceMetadata& i) const noexcept {
    return netvane::hashFields(i.bsdName, i.displayName, i.interfaceType, i.hardwareAddress);
}

std::size_t std::hash<netvane::NetworkMetadata>::operator()(const netvane::NetworkMetadata& m) const noexcept {
    netvane::Hasher hasher;
    hasher.combine(m.interfaces.size());
    for (const auto& [name, interface] : m.interfaces) hasher.combine(name, interface);
    return hasher.combine(m.services, m.primaryIPv4Interface, m.primaryIPv6Interface).value();
}
