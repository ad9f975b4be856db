// The daemon's central object: the pairing store and the table of pending
// pairing requests behind one lock, and every operation the sessions expose.
//
// A request is created by beginPairing (superseding every earlier request of
// the same user), awaited by the session that began it, and ended by exactly
// one of: approval (the waiter gets the token), denial (authorizationFailed),
// a newer begin of the same user (unknownRequest) or its session ending
// (dropped, no reply). There is no time limit.
//
// IMPORTANT: one non-recursive mutex guards the store and the table, file
// writes included. Reply functions are called, and dropped waiters destroyed,
// only after it is released, so a reply may call straight back into the
// daemon. Authorization, service changes and tunnel scans run outside it.
// Every member function may be called from any thread.
//
// Errors: AdminError values (via toError) for the daemon's own refusals;
// store and random-generator errors pass through unchanged (their text names
// the pairing file); the network preferences' refusals become
// configurationFailed, their reason logged.
//
// Every call gets the answer its protocol gives, however often it comes.
// Calls that cost real work are paced per user instead: begin, unpair and
// the authority behind approve and unpair-all wait for their user's turn
// (on the calling thread) once past a burst, and tunnel scans are shared
// (SharedTunnelScan), so that one local user can make the daemon slow only
// for themselves. Paced calls, refused authorizations and failed saves each
// leave a log line, within each user's share of the log, so that nobody can
// flood the journal until it drops the lines that matter.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "daemon/authorizer.h"
#include "daemon/pairing_store.h"
#include "daemon/rate_limiter.h"
#include "daemon/shared_tunnel_scan.h"
#include "daemon/tunnel_owner_source.h"
#include "netcore/sysconfig/network_preferences.h"
#include "support/date.h"
#include "support/mutex.h"
#include "support/plist/value.h"
#include "support/result.h"

namespace netvane {

// Names one session for the daemon's lifetime; never reused.
using SessionIdentity = std::uint64_t;

// (token, nil) on approval; (nil, error) otherwise.
using PairingReply = std::function<void(std::optional<std::string> token, std::optional<Error> error)>;

class AdminDaemon {
public:
    using LogSink = std::function<void(std::string_view line)>;

    struct Backends {
        std::shared_ptr<Authorizer> authorizer;  // null: every right is refused
        // Null: this platform has no preferences backend; service changes fail
        // with configurationFailed.
        std::shared_ptr<NetworkPreferences> preferences;
        // Null: this platform has no tunnel-owner scan; no owners are known.
        std::shared_ptr<TunnelOwnerSource> tunnelOwners;
        LogSink log;  // null: the system log, category "daemon"
        RateLimiter::Clock clock;  // null: the steady clock
        // Blocks the calling thread until the clock reaches the time given;
        // null: sleeps on the steady clock.
        std::function<void(std::chrono::steady_clock::time_point)> waitUntil;
    };

    // Per-user rates; the defaults leave a well-behaved client far below.
    struct Limits {
        RateLimiter::Rate begin, unpair, authority, logLines;
        SharedTunnelScan::Timing tunnelScans;
    };
    static Limits defaultLimits();

    AdminDaemon(PairingStore store, std::string version, Backends backends, Limits limits = defaultLimits());
    AdminDaemon(const AdminDaemon&) = delete;
    AdminDaemon& operator=(const AdminDaemon&) = delete;

    // The version string that status replies carry.
    const std::string& version() const { return version_; }

    SessionIdentity makeSessionIdentity();

    // A fresh upper-case UUID; supersedes every pending request of `uid`,
    // whose waiters hear (nil, unknownRequest). Fails only when the system's
    // random generator does.
    Result<std::string> beginPairing(std::uint32_t uid, SessionIdentity session);
    // Stores `reply` as the request's waiter when `session` began it (an
    // earlier waiter is dropped uncalled); otherwise replies (nil,
    // unknownRequest) at once.
    void awaitPairing(const std::string& id, SessionIdentity session, PairingReply reply);
    // {"id", "created"} for each pending request of `uid`, oldest first.
    plist::Array pendingPairings(std::uint32_t uid);
    Status approvePairing(const std::string& id, std::span<const std::uint8_t> authorization,
                          const PeerIdentity& approver);
    Status denyPairing(const std::string& id, std::uint32_t approverUID);
    Status unpair(std::string_view token, std::uint32_t uid);
    Status unpairAll(std::span<const std::uint8_t> authorization, const PeerIdentity& approver);
    Status setServiceEnabled(const std::string& serviceID, bool enabled, std::string_view token, std::uint32_t uid);
    bool isPaired(std::string_view token, std::uint32_t uid);
    // Drops the session's pending requests without replying to their waiters.
    void sessionEnded(SessionIdentity session);
    // Whether the session has a request pending: its connection must stay.
    // Never waits for the lock that saves hold.
    bool hasPendingRequest(SessionIdentity session);
    // In the scan's own order; runs outside the lock, shared with whoever
    // asks at about the same time.
    std::vector<TunnelOwnerEntry> scanTunnelOwners();

    // A line about what `uid` did or met, within that user's share of the
    // log; the first line after a dropped run says how many were dropped.
    void log(std::uint32_t uid, const std::string& line);

private:
    struct PendingPairing {
        std::string id;
        std::uint32_t uid = 0;
        Date created;
        SessionIdentity session = 0;
        PairingReply waiter;  // empty until awaited
    };

    // The removed requests' waiters are returned so the caller can call or
    // destroy them after releasing lock_.
    std::vector<PairingReply> removePendingWhere(const std::function<bool(const PendingPairing&)>& matches)
        NV_REQUIRES(lock_);
    // Call after every change of pending_: mirrors who has a request.
    void pendingChanged() NV_REQUIRES(lock_);
    Status verifyPairRight(std::span<const std::uint8_t> authorization, const PeerIdentity& peer, const char* what);
    // Waits for `uid`'s next turn at `limiter`, saying so in the log when
    // that is not now.
    void pace(RateLimiter& limiter, std::uint32_t uid, const char* what);
    // `saved`, logged for `uid` when it failed; `what` names the change.
    Status logged(const Status& saved, std::uint32_t uid, const std::string& what);

    const std::string version_;
    const Backends backends_;
    std::atomic<SessionIdentity> nextSession_{1};
    RateLimiter beginLimiter_, unpairLimiter_, authorityLimiter_, logLimiter_;
    SharedTunnelScan tunnelScan_;
    Mutex droppedLinesMutex_;
    std::map<std::uint32_t, std::uint64_t> droppedLines_ NV_GUARDED_BY(droppedLinesMutex_);

    Mutex lock_;
    PairingStore store_ NV_GUARDED_BY(lock_);
    std::map<std::string, PendingPairing> pending_ NV_GUARDED_BY(lock_);
    // The sessions that pending_ names, for the transport's frequent
    // question, which must not wait behind a save. Taken inside lock_.
    Mutex pendingSessionsMutex_;
    std::set<SessionIdentity> pendingSessions_ NV_GUARDED_BY(pendingSessionsMutex_);
};

}  // namespace netvane
