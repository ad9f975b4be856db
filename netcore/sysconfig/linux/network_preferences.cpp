// Network preferences over NetworkManager's bus interface; the mapping of
// profiles onto services is network_manager.h's.
//
// A session is one bus connection. Its lock is a process-wide lock that
// every writing session of ours takes: NetworkManager has none, and a change
// is a read-modify-write of the whole profile (Update2 replaces every setting
// it is given), so two changes must not interleave. Writers outside this
// process are not held off.
#include <chrono>
#include <mutex>

#include "netcore/sysconfig/linux/bus.h"
#include "netcore/sysconfig/linux/network_manager.h"
#include "netcore/sysconfig/network_preferences.h"

namespace netvane {
namespace {

// Every step of a change is bounded by the call timeout; a writer waiting
// longer than a few changes' worth is waiting on a stuck one.
constexpr auto kLockWait = std::chrono::seconds(30);
// Update2 flags: write the profile to disk.
constexpr std::uint32_t kUpdateToDisk = 0x1;
constexpr const char* kUnknownDevice = "org.freedesktop.NetworkManager.UnknownDevice";
constexpr const char* kNotActive = "org.freedesktop.NetworkManager.ConnectionNotActive";

std::timed_mutex& writerLock() {
    static std::timed_mutex lock;
    return lock;
}

Error failure(const std::string& message) { return Error{bus::kBusErrorDomain, 0, message}; }

// Copies a GetSettings reply into an update, with "connection.autoconnect"
// replaced; every other setting goes back exactly as it came.
int copySettings(sd_bus_message* to, sd_bus_message* from, bool autoconnect) {
    int r = bus::sd().sd_bus_message_enter_container(from, SD_BUS_TYPE_ARRAY, "{sa{sv}}");
    if (r >= 0) r = bus::sd().sd_bus_message_open_container(to, SD_BUS_TYPE_ARRAY, "{sa{sv}}");
    while (r >= 0 && (r = bus::sd().sd_bus_message_enter_container(from, SD_BUS_TYPE_DICT_ENTRY, "sa{sv}")) > 0) {
        const char* name = nullptr;
        r = bus::sd().sd_bus_message_read(from, "s", &name);
        const bool connection = r >= 0 && std::string_view(name) == "connection";
        if (r >= 0) r = bus::sd().sd_bus_message_open_container(to, SD_BUS_TYPE_DICT_ENTRY, "sa{sv}");
        if (r >= 0) r = bus::sd().sd_bus_message_append(to, "s", name);
        if (r >= 0) r = bus::sd().sd_bus_message_enter_container(from, SD_BUS_TYPE_ARRAY, "{sv}");
        if (r >= 0) r = bus::sd().sd_bus_message_open_container(to, SD_BUS_TYPE_ARRAY, "{sv}");
        while (r >= 0 && (r = bus::sd().sd_bus_message_enter_container(from, SD_BUS_TYPE_DICT_ENTRY, "sv")) > 0) {
            const char* key = nullptr;
            r = bus::sd().sd_bus_message_read(from, "s", &key);
            if (r >= 0 && connection && std::string_view(key) == "autoconnect") {
                r = bus::sd().sd_bus_message_skip(from, "v");
            } else if (r >= 0) {
                r = bus::sd().sd_bus_message_open_container(to, SD_BUS_TYPE_DICT_ENTRY, "sv");
                if (r >= 0) r = bus::sd().sd_bus_message_append(to, "s", key);
                if (r >= 0) r = bus::sd().sd_bus_message_copy(to, from, 0);
                if (r >= 0) r = bus::sd().sd_bus_message_close_container(to);
            }
            if (r >= 0) r = bus::sd().sd_bus_message_exit_container(from);
        }
        if (r >= 0 && connection) {
            r = bus::sd().sd_bus_message_append(to, "{sv}", "autoconnect", "b", autoconnect ? 1 : 0);
        }
        if (r >= 0) r = bus::sd().sd_bus_message_close_container(to);
        if (r >= 0) r = bus::sd().sd_bus_message_exit_container(from);
        if (r >= 0) r = bus::sd().sd_bus_message_close_container(to);
        if (r >= 0) r = bus::sd().sd_bus_message_exit_container(from);
    }
    if (r >= 0) r = bus::sd().sd_bus_message_close_container(to);
    if (r >= 0) r = bus::sd().sd_bus_message_exit_container(from);
    return r;
}

// "/NetworkServices/<uuid>" and below, split into the UUID and the rest.
std::optional<std::pair<std::string, std::vector<std::string>>> splitServicePath(const std::string& path) {
    constexpr std::string_view kPrefix = "/NetworkServices/";
    if (path.compare(0, kPrefix.size(), kPrefix) != 0) return std::nullopt;
    std::vector<std::string> pieces;
    std::size_t start = kPrefix.size();
    while (start <= path.size()) {
        const std::size_t end = std::min(path.find('/', start), path.size());
        if (end == start) return std::nullopt;  // "//" or a trailing "/"
        pieces.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    if (pieces.empty() || !nm::isUUID(pieces.front())) return std::nullopt;
    std::string uuid = std::move(pieces.front());
    pieces.erase(pieces.begin());
    return std::pair(std::move(uuid), std::move(pieces));
}

class NetworkManagerSession final : public NetworkPreferencesSession {
public:
    explicit NetworkManagerSession(bus::Bus bus) : bus_(std::move(bus)), held_(writerLock(), std::defer_lock) {}

    Status lock() override {
        if (!held_.try_lock_for(kLockWait)) return failure("another network configuration change did not finish");
        return {};
    }

    void unlock() override {
        if (held_.owns_lock()) held_.unlock();
    }

    Result<bool> hasService(const std::string& serviceID) override {
        if (!nm::isUUID(serviceID)) return false;
        auto found = profile(serviceID);
        if (!found) return found.error();
        return *found != nullptr && (*found)->saved();
    }

    std::optional<plist::Value> pathValue(const std::string& path) override {
        const auto split = splitServicePath(path);
        if (!split) return std::nullopt;
        auto found = profile(split->first);
        if (!found || *found == nullptr || !(*found)->saved()) return std::nullopt;
        plist::Value value(nm::serviceEntity(**found));
        for (const std::string& piece : split->second) {
            const plist::Value* inner = value.find(piece);
            if (!inner) return std::nullopt;
            plist::Value next = *inner;
            value = std::move(next);
        }
        return value;
    }

    std::optional<std::vector<PreferencesService>> currentSetServices() override {
        const nm::State* state = loadedState();
        if (!state) return std::nullopt;
        std::vector<PreferencesService> services;
        for (const nm::Profile& profile : state->profiles) {
            if (!profile.saved()) continue;
            services.push_back(PreferencesService{profile.uuid,
                                                  profile.id.empty() ? std::nullopt : std::optional(profile.id),
                                                  profile.autoconnect, nm::interfaceOf(profile, state->profiles)});
        }
        return services;
    }

    std::optional<std::vector<std::string>> currentSetServiceOrder() override {
        const nm::State* state = loadedState();
        if (!state) return std::nullopt;
        return nm::serviceOrder(state->profiles);
    }

    Status setServiceEnabled(const std::string& serviceID, bool enabled) override {
        if (!nm::isUUID(serviceID)) return failure("not a profile UUID: " + serviceID);
        // Read fresh, under our lock: this reply is what goes back, changed.
        auto fresh = nm::loadProfile(bus_.get(), serviceID);
        if (!fresh) return fresh.error();
        if (!*fresh || !(*fresh)->profile.saved()) return failure("no saved profile " + serviceID);
        nm::LoadedProfile& loaded = **fresh;
        auto update = bus::methodCall(bus_.get(), nm::kService, loaded.profile.path.c_str(), nm::kProfileInterface,
                                      "Update2");
        if (!update) return update.error();
        int r = copySettings(update->get(), loaded.settings.get(), enabled);
        if (r >= 0) r = bus::sd().sd_bus_message_append(update->get(), "u", kUpdateToDisk);
        if (r >= 0) r = bus::sd().sd_bus_message_append(update->get(), "a{sv}", 0);
        if (r < 0) return bus::errorFrom(r, "build Update2 of " + serviceID);
        loaded.profile.autoconnect = enabled;
        pending_ = Pending{loaded.profile, std::move(*update)};
        profiles_[serviceID] = pending_->profile;
        return {};
    }

    Status commit() override {
        if (!pending_) return {};
        auto saved = bus::call(bus_.get(), pending_->update.get());
        if (!saved) return saved.error();
        return {};
    }

    Status apply() override {
        if (!pending_) return {};
        auto active = activeConnectionsOf(pending_->profile.path);
        if (!active) return active.error();
        const nm::Profile& profile = pending_->profile;
        if (profile.autoconnect && active->empty()) {
            auto activation = bus::methodCall(bus_.get(), nm::kService, nm::kManagerPath, nm::kManagerInterface,
                                              "ActivateConnection");
            if (!activation) return activation.error();
            if (int r = bus::sd().sd_bus_message_append(activation->get(), "ooo", profile.path.c_str(), "/", "/");
                r < 0) {
                return bus::errorFrom(r, "build ActivateConnection");
            }
            auto started = bus::call(bus_.get(), activation->get());
            // No device for it now: enabled, it connects when one appears.
            if (!started && started.error().domain != kUnknownDevice) return started.error();
        }
        if (!profile.autoconnect) {
            for (const std::string& path : *active) {
                auto deactivation = bus::methodCall(bus_.get(), nm::kService, nm::kManagerPath, nm::kManagerInterface,
                                                    "DeactivateConnection");
                if (!deactivation) return deactivation.error();
                if (int r = bus::sd().sd_bus_message_append(deactivation->get(), "o", path.c_str()); r < 0) {
                    return bus::errorFrom(r, "build DeactivateConnection");
                }
                auto stopped = bus::call(bus_.get(), deactivation->get());
                if (!stopped && stopped.error().domain != kNotActive) return stopped.error();
            }
        }
        return {};
    }

private:
    struct Pending {
        nm::Profile profile;
        bus::Message update;
    };

    // The profile by UUID: from what this session already read, else asked.
    Result<const nm::Profile*> profile(const std::string& uuid) {
        if (const auto it = profiles_.find(uuid); it != profiles_.end()) return &it->second;
        if (state_) return state_->profile(uuid);
        auto loaded = nm::loadProfile(bus_.get(), uuid);
        if (!loaded) return loaded.error();
        if (!*loaded) return static_cast<const nm::Profile*>(nullptr);
        return &profiles_.insert_or_assign(uuid, std::move((*loaded)->profile)).first->second;
    }

    const nm::State* loadedState() {
        if (!state_) {
            auto state = nm::load(bus_.get());
            if (!state) return nullptr;
            state_ = std::move(*state);
        }
        return &*state_;
    }

    // Paths of the active connections of a profile, in any state.
    Result<std::vector<std::string>> activeConnectionsOf(const std::string& profilePath) {
        auto list = bus::methodCall(bus_.get(), nm::kService, nm::kManagerPath, "org.freedesktop.DBus.Properties", "Get");
        if (!list) return list.error();
        if (int r = bus::sd().sd_bus_message_append(list->get(), "ss", nm::kManagerInterface, "ActiveConnections");
            r < 0) {
            return bus::errorFrom(r, "build Get ActiveConnections");
        }
        auto reply = bus::call(bus_.get(), list->get());
        if (!reply) return reply.error();
        auto paths = bus::readValue(reply->get());
        if (!paths) return paths.error();
        std::vector<std::string> candidates;
        std::vector<bus::Message> requests;
        for (const plist::Value& path : paths->array() ? *paths->array() : plist::Array{}) {
            if (!path.string()) continue;
            auto get = bus::methodCall(bus_.get(), nm::kService, path.string()->c_str(),
                                       "org.freedesktop.DBus.Properties", "Get");
            if (!get) return get.error();
            if (int r = bus::sd().sd_bus_message_append(get->get(), "ss", nm::kActiveInterface, "Connection"); r < 0) {
                return bus::errorFrom(r, "build Get Connection");
            }
            candidates.push_back(*path.string());
            requests.push_back(std::move(*get));
        }
        std::vector<std::string> matching;
        std::vector<Result<bus::Message>> replies = bus::callAll(bus_.get(), requests);
        for (std::size_t i = 0; i < replies.size(); ++i) {
            // One that went away meanwhile is no longer active.
            if (!replies[i]) continue;
            auto connection = bus::readValue(replies[i]->get());
            if (connection && connection->string() && *connection->string() == profilePath) {
                matching.push_back(candidates[i]);
            }
        }
        return matching;
    }

    bus::Bus bus_;
    std::unique_lock<std::timed_mutex> held_;
    std::optional<nm::State> state_;
    std::map<std::string, nm::Profile> profiles_;  // by UUID, looked up one at a time
    std::optional<Pending> pending_;
};

class NetworkManagerPreferences final : public NetworkPreferences {
public:
    Result<std::unique_ptr<NetworkPreferencesSession>> open(const std::string&) override {
        auto bus = bus::openSystemBus();
        if (!bus) return bus.error();
        auto running = nm::isRunning(bus->get());
        if (!running) return running.error();
        if (!*running) return failure("NetworkManager is not running");
        return std::unique_ptr<NetworkPreferencesSession>(std::make_unique<NetworkManagerSession>(std::move(*bus)));
    }
};

}  // namespace

std::shared_ptr<NetworkPreferences> systemNetworkPreferences() {
    return std::make_shared<NetworkManagerPreferences>();
}

}  // namespace netvane
