// The network-preferences seam: the system's store of network services.
//
// Mirrors the steps the service switch needs: open a session, take the
// store's lock (waiting), look up a service, read a path value, set enabled,
// commit, apply, unlock. Implementations: NetworkManager on Linux (a later
// backend), the system preferences on macOS, an in-memory fake for tests.
// A session is used from one thread at a time; concurrent sessions serialise
// on lock().
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "support/plist/value.h"

namespace netvane {

class NetworkPreferencesSession {
public:
    virtual ~NetworkPreferencesSession() = default;
    virtual bool lock() = 0;  // waits for the lock
    virtual void unlock() = 0;
    virtual bool hasService(const std::string& serviceID) = 0;
    // The value at a preferences path such as "/NetworkServices/<id>/Interface".
    virtual std::optional<plist::Value> pathValue(const std::string& path) = 0;
    virtual bool setServiceEnabled(const std::string& serviceID, bool enabled) = 0;
    virtual bool commit() = 0;
    virtual bool apply() = 0;
};

class NetworkPreferences {
public:
    virtual ~NetworkPreferences() = default;
    // Null when no session can be opened.
    virtual std::unique_ptr<NetworkPreferencesSession> open(const std::string& clientName) = 0;
};

}  // namespace netvane
