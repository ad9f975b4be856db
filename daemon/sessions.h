// The objects exported on the daemon's two kinds of connection. AppSession
// serves the menu-bar application's protocol, ControlSession the control
// application's. A session holds only the caller's identity and the daemon;
// each method turns one call into an AdminDaemon operation and answers through
// its reply exactly once (awaitPairing answers later, or never when the
// request is dropped with its session).
//
// Methods may run concurrently on any thread; replies may come from another
// thread (an await is answered by the approving control connection's call).
// Replies are never called under the daemon's lock.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "daemon/admin_daemon.h"
#include "daemon/authorizer.h"
#include "support/plist/value.h"
#include "support/result.h"

namespace netvane {

using ErrorReply = std::function<void(std::optional<Error> error)>;
using DictionaryReply = std::function<void(plist::Dictionary)>;
using ArrayReply = std::function<void(plist::Array)>;

class AppSession {
public:
    AppSession(std::shared_ptr<AdminDaemon> daemon, PeerIdentity peer);

    SessionIdentity identity() const { return identity_; }
    const PeerIdentity& peer() const { return peer_; }

    // {"version", "protocol", "paired"}; a nil token is never paired.
    void statusWithToken(std::optional<std::string> token, DictionaryReply reply);
    void beginPairing(PairingReply reply);
    void awaitPairing(std::string id, PairingReply reply);
    void setServiceEnabled(std::string serviceID, bool enabled, std::string token, ErrorReply reply);
    void unpair(std::string token, ErrorReply reply);
    // {"interface", "name", "pid", "path"} per tunnel, in scan order; no
    // pairing needed.
    void tunnelOwners(ArrayReply reply);

    // The connection is gone: its pending requests go, their waiters uncalled.
    // The transport calls this exactly once.
    void ended();
    // Whether a request of this session is pending, which keeps its
    // connection from being idle.
    bool hasPendingRequest() const { return daemon_->hasPendingRequest(identity_); }

private:
    std::shared_ptr<AdminDaemon> daemon_;
    PeerIdentity peer_;
    SessionIdentity identity_;
};

class ControlSession {
public:
    ControlSession(std::shared_ptr<AdminDaemon> daemon, PeerIdentity peer);

    SessionIdentity identity() const { return identity_; }
    const PeerIdentity& peer() const { return peer_; }

    // {"version", "protocol"}.
    void statusWithReply(DictionaryReply reply);
    // The caller's own user's pending requests only.
    void pendingPairings(ArrayReply reply);
    void approvePairing(std::string id, std::vector<std::uint8_t> authorization, ErrorReply reply);
    void denyPairing(std::string id, ErrorReply reply);
    void unpairAll(std::vector<std::uint8_t> authorization, ErrorReply reply);

private:
    std::shared_ptr<AdminDaemon> daemon_;
    PeerIdentity peer_;
    SessionIdentity identity_;
};

}  // namespace netvane
