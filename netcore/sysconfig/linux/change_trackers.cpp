#include "netcore/sysconfig/linux/change_trackers.h"

#include <sys/socket.h>

#include "netcore/sysconfig/linux/store_view.h"

namespace netvane {

void KernelChangeTracker::reset(const std::vector<kernel::Link>& links, std::optional<kernel::PrimaryRoute> ipv4,
                                std::optional<kernel::PrimaryRoute> ipv6) {
    links_.clear();
    for (const kernel::Link& link : links) links_[link.index] = LinkState{link.name, link.active()};
    ipv4_ = std::move(ipv4);
    ipv6_ = std::move(ipv6);
}

void KernelChangeTracker::allOf(const std::string& name, KeySet& keys) {
    for (const char* entity : {"Link", "IPv4", "IPv6"}) keys.insert(storeview::interfaceKey(name, entity));
}

void KernelChangeTracker::linkChanged(const kernel::Link& link, bool removed, KeySet& keys) {
    const auto known = links_.find(link.index);
    if (removed) {
        if (known == links_.end()) return;
        allOf(known->second.name, keys);
        keys.insert(storeview::kInterfaceList);
        links_.erase(known);
        return;
    }
    const LinkState now{link.name, link.active()};
    if (known == links_.end()) {
        keys.insert(storeview::kInterfaceList);
        keys.insert(storeview::interfaceKey(link.name, "Link"));
    } else if (known->second.name != link.name) {
        // A rename moves every key of the interface.
        allOf(known->second.name, keys);
        allOf(link.name, keys);
        keys.insert(storeview::kInterfaceList);
    } else if (known->second.active != now.active) {
        keys.insert(storeview::interfaceKey(link.name, "Link"));
    }
    links_[link.index] = now;
}

void KernelChangeTracker::addressChanged(const kernel::Address& address, KeySet& keys) {
    const auto known = links_.find(address.index);
    // The link's removal already named its keys.
    if (known == links_.end()) return;
    keys.insert(storeview::interfaceKey(known->second.name, address.family == AF_INET ? "IPv4" : "IPv6"));
}

void KernelChangeTracker::primariesAre(std::optional<kernel::PrimaryRoute> ipv4,
                                       std::optional<kernel::PrimaryRoute> ipv6, KeySet& keys) {
    if (ipv4 != ipv4_) keys.insert(storeview::kGlobalIPv4);
    if (ipv6 != ipv6_) keys.insert(storeview::kGlobalIPv6);
    ipv4_ = std::move(ipv4);
    ipv6_ = std::move(ipv6);
}

void KernelChangeTracker::resync(const std::vector<kernel::Link>& links, KeySet& keys) {
    for (const auto& [index, state] : links_) allOf(state.name, keys);
    for (const kernel::Link& link : links) allOf(link.name, keys);
    keys.insert(storeview::kInterfaceList);
    links_.clear();
    for (const kernel::Link& link : links) links_[link.index] = LinkState{link.name, link.active()};
}

void KernelChangeTracker::unsure(KeySet& keys) const {
    for (const auto& [index, state] : links_) allOf(state.name, keys);
    keys.insert(storeview::kInterfaceList);
}

void NetworkManagerChangeTracker::reset(const nm::State& state) {
    profiles_.clear();
    active_.clear();
    for (const nm::Profile& profile : state.profiles) profiles_[profile.path] = profile.uuid;
    for (const nm::ActiveConnection& active : state.active) active_[active.path] = active.uuid;
}

void NetworkManagerChangeTracker::setupKeys(const std::string& uuid, KeySet& keys) {
    keys.insert(storeview::serviceSetupKey(uuid));
    keys.insert(storeview::serviceInterfaceKey(uuid));
}

void NetworkManagerChangeTracker::stateKeys(const std::string& uuid, KeySet& keys) {
    keys.insert(storeview::serviceStateKey(uuid, "IPv4"));
    keys.insert(storeview::serviceStateKey(uuid, "IPv6"));
}

void NetworkManagerChangeTracker::profileChanged(const std::string& path, const std::string& uuid, KeySet& keys) {
    auto [it, added] = profiles_.try_emplace(path, uuid);
    if (!added && it->second != uuid) {
        setupKeys(it->second, keys);
        it->second = uuid;
    }
    setupKeys(uuid, keys);
}

void NetworkManagerChangeTracker::profileRemoved(const std::string& path, KeySet& keys) {
    const auto it = profiles_.find(path);
    if (it == profiles_.end()) return;
    setupKeys(it->second, keys);
    profiles_.erase(it);
}

bool NetworkManagerChangeTracker::profileTouched(const std::string& path, KeySet& keys) {
    const auto it = profiles_.find(path);
    if (it == profiles_.end()) return false;
    setupKeys(it->second, keys);
    return true;
}

void NetworkManagerChangeTracker::activeChanged(const std::string& path, const std::string& uuid, KeySet& keys) {
    active_[path] = uuid;
    stateKeys(uuid, keys);
}

bool NetworkManagerChangeTracker::activeTouched(const std::string& path, KeySet& keys) {
    const auto it = active_.find(path);
    if (it == active_.end()) return false;
    stateKeys(it->second, keys);
    return true;
}

std::vector<std::string> NetworkManagerChangeTracker::activeListIs(const std::vector<std::string>& paths,
                                                                   KeySet& keys) {
    const std::set<std::string> present(paths.begin(), paths.end());
    for (auto it = active_.begin(); it != active_.end();) {
        if (present.contains(it->first)) {
            ++it;
            continue;
        }
        stateKeys(it->second, keys);
        it = active_.erase(it);
    }
    std::vector<std::string> unknown;
    for (const std::string& path : paths) {
        if (!active_.contains(path)) unknown.push_back(path);
    }
    return unknown;
}

void NetworkManagerChangeTracker::managerLost(KeySet& keys) {
    for (const auto& [path, uuid] : profiles_) setupKeys(uuid, keys);
    for (const auto& [path, uuid] : active_) stateKeys(uuid, keys);
    profiles_.clear();
    active_.clear();
}

}  // namespace netvane
