// The network-preferences seam: the system's saved store of network services
// and of the set that ranks them.
//
// Each member is one request to the store: open a session, take the store's
// lock (waiting), look up a service, read a path value, list the current
// set's services and its order, set a service's enabled flag, commit, apply,
// unlock. Every decision about what the answers mean (ranking, hidden flags,
// names) is the callers' business. Implementations: NetworkManager on Linux,
// the system preferences on macOS, an in-memory fake in tests.
//
// A session is used from one thread at a time; concurrent sessions of one
// process serialise their changes on lock(). A session that lost its
// connection to the store fails every request after that.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "netcore/sysconfig/network_interface_list.h"
#include "support/plist/value.h"
#include "support/result.h"

namespace netvane {

// One service of the current set, as the store holds it.
struct PreferencesService {
    std::optional<std::string> serviceID;
    std::optional<std::string> name;  // the user's name for it
    bool enabled = true;
    // The interface it runs on, with the ones that interface is layered on.
    std::optional<NetworkInterface> interface;

    bool operator==(const PreferencesService&) const = default;
};

class NetworkPreferencesSession {
public:
    virtual ~NetworkPreferencesSession() = default;

    // Waits for the lock: within a bound where the store's lock is ours,
    // for as long as its holder keeps it where the lock is the system's
    // (only privileged writers can take that one).
    virtual Status lock() = 0;
    virtual void unlock() = 0;
    // Whether the saved configuration holds the service; an error when the
    // store could not say.
    virtual Result<bool> hasService(const std::string& serviceID) = 0;
    // The value at a path such as "/NetworkServices/<id>/Interface"; nothing
    // when the path holds none or the store cannot be read.
    virtual std::optional<plist::Value> pathValue(const std::string& path) = 0;
    // The current set's services in the store's own order; nothing when
    // there is no current set or it lists no services.
    virtual std::optional<std::vector<PreferencesService>> currentSetServices() = 0;
    // The current set's service order (service IDs, best first); nothing
    // when the set has none.
    virtual std::optional<std::vector<std::string>> currentSetServiceOrder() = 0;
    // Changes the session's copy; commit saves it, apply makes it live.
    virtual Status setServiceEnabled(const std::string& serviceID, bool enabled) = 0;
    virtual Status commit() = 0;
    virtual Status apply() = 0;
};

class NetworkPreferences {
public:
    virtual ~NetworkPreferences() = default;
    // A session under the client's name; an error when the store cannot be
    // reached. Callable from any thread.
    virtual Result<std::unique_ptr<NetworkPreferencesSession>> open(const std::string& clientName) = 0;
};

// This platform's preferences. Every open() reaches the store afresh, so a
// store that starts after this object was made is found.
std::shared_ptr<NetworkPreferences> systemNetworkPreferences();

// Whether a text can name a service at all: 1 to 64 letters, digits and
// dashes. Anything else is never looked up, so it never reaches a path or a
// request to the store.
bool isPlausibleServiceID(std::string_view serviceID);

// The preferences path of a service's interface entity.
std::string interfaceEntityPath(const std::string& serviceID);

// True only when the service's interface entity is a dictionary whose
// "HiddenConfiguration" is the boolean true.
bool isHidden(NetworkPreferencesSession& session, const std::string& serviceID);

}  // namespace netvane
