// Which store keys an event changes. The kernel's events and
// NetworkManager's signals arrive one by one; the trackers remember just
// enough (interface names and states, profile and connection UUIDs, the
// primary routes) to name the keys each one touches. Pure bookkeeping: one
// thread, no requests of their own.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "netcore/sysconfig/linux/kernel_network.h"
#include "netcore/sysconfig/linux/network_manager.h"

namespace netvane {

using KeySet = std::set<std::string>;

class KernelChangeTracker {
public:
    // The baseline; reports nothing.
    void reset(const std::vector<kernel::Link>& links, std::optional<kernel::PrimaryRoute> ipv4,
               std::optional<kernel::PrimaryRoute> ipv6);

    void linkChanged(const kernel::Link& link, bool removed, KeySet& keys);
    void addressChanged(const kernel::Address& address, KeySet& keys);
    // The primary routes as they are now; keys for each that moved.
    void primariesAre(std::optional<kernel::PrimaryRoute> ipv4, std::optional<kernel::PrimaryRoute> ipv6, KeySet& keys);
    // After events were lost: every interface key that may have changed,
    // judged against the links as they are now.
    void resync(const std::vector<kernel::Link>& links, KeySet& keys);
    // After events were lost and the links could not be read: every key of
    // the links known so far may have changed. They stay known, so that
    // their removal is still reported when it arrives.
    void unsure(KeySet& keys) const;

private:
    struct LinkState {
        std::string name;
        bool active = false;
    };
    static void allOf(const std::string& name, KeySet& keys);

    std::map<int, LinkState> links_;
    std::optional<kernel::PrimaryRoute> ipv4_, ipv6_;
};

class NetworkManagerChangeTracker {
public:
    // The baseline (profiles and active connections by object path); reports nothing.
    void reset(const nm::State& state);

    void profileChanged(const std::string& path, const std::string& uuid, KeySet& keys);
    void profileRemoved(const std::string& path, KeySet& keys);
    // A profile whose UUID is known by path alone (flag changes); false when unknown.
    bool profileTouched(const std::string& path, KeySet& keys);

    void activeChanged(const std::string& path, const std::string& uuid, KeySet& keys);
    bool activeTouched(const std::string& path, KeySet& keys);
    // Given the manager's full list of active connections: keys of the ones
    // that went away; the paths not known yet are returned for lookup.
    std::vector<std::string> activeListIs(const std::vector<std::string>& paths, KeySet& keys);

    // NetworkManager went away: everything it had may have changed.
    void managerLost(KeySet& keys);

private:
    static void setupKeys(const std::string& uuid, KeySet& keys);
    static void stateKeys(const std::string& uuid, KeySet& keys);

    std::map<std::string, std::string> profiles_;  // path -> UUID
    std::map<std::string, std::string> active_;    // path -> UUID
};

}  // namespace netvane
