#include "netcore/sysconfig/linux/network_manager.h"

#include <algorithm>
#include <cctype>

namespace netvane::nm {
namespace {

constexpr const char* kNoSuchProfile = "org.freedesktop.NetworkManager.Settings.InvalidConnection";
// Parents naming parents: deeper than this is a loop.
constexpr int kMaxLayers = 8;

const plist::Value* entry(const plist::Value* dictionary, std::string_view key) {
    return dictionary ? dictionary->find(key) : nullptr;
}

std::optional<std::string> text(const plist::Value* value) {
    if (!value || !value->string() || value->string()->empty()) return std::nullopt;
    return *value->string();
}

std::string stringOr(const plist::Value* value, std::string fallback) {
    return value && value->string() ? *value->string() : std::move(fallback);
}

const plist::Value* properties(const plist::Value& objects, std::string_view path, std::string_view interface) {
    return entry(objects.find(path), interface);
}

std::optional<ActiveConnection> activeFrom(const plist::Value& objects, const std::string& path,
                                           const plist::Value& active) {
    ActiveConnection connection;
    connection.path = path;
    if (const plist::Value* state = active.find("State")) {
        connection.state = static_cast<std::uint32_t>(state->int64().value_or(0));
    }
    connection.uuid = stringOr(active.find("Uuid"), "");
    connection.profilePath = stringOr(active.find("Connection"), "");
    if (connection.uuid.empty()) return std::nullopt;
    const plist::Value* devices = active.find("Devices");
    if (devices && devices->array() && !devices->array()->empty() && devices->array()->front().string()) {
        const plist::Value* device = properties(objects, *devices->array()->front().string(), kDeviceInterface);
        connection.interfaceName = text(entry(device, "IpInterface"));
        if (!connection.interfaceName) connection.interfaceName = text(entry(device, "Interface"));
    }
    auto configured = [&](const char* key) {
        const auto value = text(active.find(key));
        return value && *value != "/";
    };
    connection.ipv4 = configured("Ip4Config");
    connection.ipv6 = configured("Ip6Config");
    return connection;
}

}  // namespace

const Profile* State::profile(std::string_view uuid) const {
    for (const Profile& candidate : profiles) {
        if (candidate.uuid == uuid) return &candidate;
    }
    return nullptr;
}

bool isUUID(std::string_view text) {
    if (text.size() != 36) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[i] != '-' : !std::isxdigit(static_cast<unsigned char>(text[i]))) return false;
    }
    return true;
}

std::optional<Profile> profileFrom(const std::string& path, const plist::Value& settings, std::uint32_t flags) {
    const plist::Value* connection = settings.find("connection");
    const auto uuid = text(entry(connection, "uuid"));
    if (!uuid) return std::nullopt;
    Profile profile;
    profile.path = path;
    profile.uuid = *uuid;
    profile.id = stringOr(entry(connection, "id"), "");
    profile.type = stringOr(entry(connection, "type"), "");
    profile.interfaceName = text(entry(connection, "interface-name"));
    if (!profile.type.empty()) profile.parent = text(entry(settings.find(profile.type), "parent"));
    if (const plist::Value* autoconnect = entry(connection, "autoconnect")) {
        profile.autoconnect = autoconnect->boolean().value_or(true);
    }
    if (const plist::Value* priority = entry(connection, "autoconnect-priority")) {
        profile.priority = priority->int64().value_or(0);
    }
    const plist::Value* data = entry(settings.find("user"), "data");
    if (const plist::Value* hidden = entry(data, kHiddenKey); hidden && hidden->string()) {
        profile.hidden = *hidden->string();
    }
    profile.flags = flags;
    return profile;
}

State stateFrom(const plist::Value& managedObjects, const std::map<std::string, plist::Value>& settings) {
    State state;
    if (!managedObjects.dictionary()) return state;
    std::vector<std::string> order;
    const plist::Value* listed = entry(properties(managedObjects, kSettingsPath, kSettingsInterface), "Connections");
    if (listed && listed->array()) {
        for (const plist::Value& path : *listed->array()) {
            if (path.string()) order.push_back(*path.string());
        }
    } else {
        for (const auto& [path, interfaces] : *managedObjects.dictionary()) {
            if (interfaces.find(kProfileInterface)) order.push_back(path);
        }
    }
    for (const std::string& path : order) {
        const auto found = settings.find(path);
        if (found == settings.end()) continue;
        const plist::Value* flags = entry(properties(managedObjects, path, kProfileInterface), "Flags");
        const auto value = flags ? flags->int64().value_or(0) : 0;
        if (auto profile = profileFrom(path, found->second, static_cast<std::uint32_t>(value))) {
            state.profiles.push_back(std::move(*profile));
        }
    }
    for (const auto& [path, interfaces] : *managedObjects.dictionary()) {
        const plist::Value* active = interfaces.find(kActiveInterface);
        if (!active || !active->dictionary()) continue;
        if (auto connection = activeFrom(managedObjects, path, *active)) state.active.push_back(std::move(*connection));
    }
    return state;
}

std::optional<std::string> interfaceTypeFor(std::string_view profileType) {
    static constexpr std::pair<std::string_view, const char*> kTypes[] = {
        {"802-3-ethernet", "Ethernet"}, {"802-11-wireless", "IEEE80211"}, {"bridge", "Bridge"},
        {"bond", "Bond"},               {"vlan", "VLAN"},                 {"pppoe", "PPP"},
        {"gsm", "WWAN"},                {"cdma", "WWAN"},                 {"bluetooth", "Bluetooth"},
        {"vpn", "VPN"},                 {"wireguard", "VPN"},
    };
    for (const auto& [type, name] : kTypes) {
        if (type == profileType) return name;
    }
    return std::nullopt;
}

NetworkInterface interfaceOf(const Profile& profile, const std::vector<Profile>& all) {
    NetworkInterface top{profile.interfaceName, profile.id.empty() ? std::nullopt : std::optional(profile.id),
                         interfaceTypeFor(profile.type), std::nullopt, {}};
    NetworkInterface* layer = &top;
    const Profile* current = &profile;
    for (int depth = 0; depth < kMaxLayers && current->parent; ++depth) {
        const std::string& parent = *current->parent;
        const Profile* named = nullptr;
        if (isUUID(parent)) {
            auto it = std::find_if(all.begin(), all.end(), [&](const Profile& p) { return p.uuid == parent; });
            if (it == all.end()) break;
            named = &*it;
        }
        NetworkInterface below;
        below.bsdName = named ? named->interfaceName : std::optional(parent);
        if (named) below.interfaceType = interfaceTypeFor(named->type);
        layer->underlying.push_back(std::move(below));
        layer = &layer->underlying.back();
        if (!named) break;
        current = named;
    }
    return top;
}

plist::Dictionary serviceEntity(const Profile& profile) {
    plist::Dictionary interface;
    if (profile.interfaceName) interface.append("DeviceName", *profile.interfaceName);
    if (auto type = interfaceTypeFor(profile.type)) interface.append("Type", *type);
    interface.append("UserDefinedName", profile.id);
    if (profile.hidden) {
        if (*profile.hidden == "true" || *profile.hidden == "false") {
            interface.append("HiddenConfiguration", *profile.hidden == "true");
        } else {
            interface.append("HiddenConfiguration", *profile.hidden);
        }
    }
    plist::Dictionary service;
    service.append("UserDefinedName", profile.id);
    if (!profile.autoconnect) service.append("__INACTIVE__", true);
    service.append("Interface", std::move(interface));
    return service;
}

std::vector<std::string> serviceOrder(const std::vector<Profile>& profiles) {
    std::vector<const Profile*> saved;
    for (const Profile& profile : profiles) {
        if (profile.saved()) saved.push_back(&profile);
    }
    std::stable_sort(saved.begin(), saved.end(),
                     [](const Profile* a, const Profile* b) { return a->priority > b->priority; });
    std::vector<std::string> order;
    order.reserve(saved.size());
    for (const Profile* profile : saved) order.push_back(profile->uuid);
    return order;
}

Result<State> load(sd_bus* bus) {
    auto request = bus::methodCall(bus, kService, kObjectManagerPath, "org.freedesktop.DBus.ObjectManager",
                                   "GetManagedObjects");
    if (!request) return request.error();
    auto reply = bus::call(bus, request->get());
    if (!reply) return reply.error();
    auto objects = bus::readValue(reply->get());
    if (!objects) return objects.error();
    if (!objects->dictionary()) return Error{bus::kBusErrorDomain, 0, "GetManagedObjects: no objects"};

    std::vector<std::string> paths;
    std::vector<bus::Message> requests;
    for (const auto& [path, interfaces] : *objects->dictionary()) {
        if (!interfaces.find(kProfileInterface)) continue;
        auto settings = bus::methodCall(bus, kService, path.c_str(), kProfileInterface, "GetSettings");
        if (!settings) return settings.error();
        paths.push_back(path);
        requests.push_back(std::move(*settings));
    }
    std::map<std::string, plist::Value> settings;
    std::vector<Result<bus::Message>> replies = bus::callAll(bus, requests);
    for (std::size_t i = 0; i < replies.size(); ++i) {
        // A profile removed since the listing simply drops out.
        if (!replies[i]) continue;
        if (auto value = bus::readValue(replies[i]->get())) settings.emplace(paths[i], std::move(*value));
    }
    return stateFrom(*objects, settings);
}

Result<std::optional<LoadedProfile>> loadProfile(sd_bus* bus, const std::string& uuid) {
    auto lookup = bus::methodCall(bus, kService, kSettingsPath, kSettingsInterface, "GetConnectionByUuid");
    if (!lookup) return lookup.error();
    if (int r = bus::sd().sd_bus_message_append((*lookup).get(), "s", uuid.c_str()); r < 0) {
        return bus::errorFrom(r, "build GetConnectionByUuid");
    }
    auto found = bus::call(bus, lookup->get());
    if (!found) {
        if (found.error().domain == kNoSuchProfile) return std::optional<LoadedProfile>();
        return found.error();
    }
    const char* path = nullptr;
    if (int r = bus::sd().sd_bus_message_read((*found).get(), "o", &path); r < 0) {
        return bus::errorFrom(r, "read a profile path");
    }
    const std::string profilePath = path;

    std::vector<bus::Message> requests;
    auto settings = bus::methodCall(bus, kService, profilePath.c_str(), kProfileInterface, "GetSettings");
    if (!settings) return settings.error();
    requests.push_back(std::move(*settings));
    auto flags = bus::methodCall(bus, kService, profilePath.c_str(), "org.freedesktop.DBus.Properties", "Get");
    if (!flags) return flags.error();
    if (int r = bus::sd().sd_bus_message_append((*flags).get(), "ss", kProfileInterface, "Flags"); r < 0) {
        return bus::errorFrom(r, "build Get Flags");
    }
    requests.push_back(std::move(*flags));
    std::vector<Result<bus::Message>> replies = bus::callAll(bus, requests);
    for (auto& reply : replies) {
        if (!reply) return reply.error();
    }
    auto values = bus::readValue(replies[0]->get());
    if (!values) return values.error();
    auto flagValue = bus::readValue(replies[1]->get());
    if (!flagValue) return flagValue.error();
    auto profile = profileFrom(profilePath, *values, static_cast<std::uint32_t>(flagValue->int64().value_or(0)));
    if (!profile || profile->uuid != uuid) return std::optional<LoadedProfile>();
    // Back to the start, so the reply can be copied into an update.
    if (int r = bus::sd().sd_bus_message_rewind(replies[0]->get(), 1); r < 0) {
        return bus::errorFrom(r, "rewind GetSettings");
    }
    return std::optional<LoadedProfile>(LoadedProfile{std::move(*profile), std::move(*replies[0])});
}

Result<bool> isRunning(sd_bus* bus) {
    auto request = bus::methodCall(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                   "NameHasOwner");
    if (!request) return request.error();
    if (int r = bus::sd().sd_bus_message_append((*request).get(), "s", kService); r < 0) {
        return bus::errorFrom(r, "build NameHasOwner");
    }
    auto reply = bus::call(bus, request->get());
    if (!reply) return reply.error();
    int owned = 0;
    if (int r = bus::sd().sd_bus_message_read((*reply).get(), "b", &owned); r < 0) {
        return bus::errorFrom(r, "read NameHasOwner");
    }
    return owned != 0;
}

}  // namespace netvane::nm
