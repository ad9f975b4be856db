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
// store, random-generator and preferences errors pass through unchanged.
//
// Calls that cost real work (begin, unpair, the authority behind approve and
// unpair-all, tunnel scans) and log lines are limited per user, so one local
// user can neither slow the others down nor flood the journal until it drops
// the lines that matter. Approve and unpair-all over the limit fail as an
// unauthorised call would; the rest fail with a refusal (isRefusal), which
// the transport answers by closing that connection instead of replying.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "daemon/authorizer.h"
#include "daemon/network_preferences.h"
#include "daemon/pairing_store.h"
#include "daemon/rate_limiter.h"
#include "daemon/tunnel_owner_source.h"
#include "support/date.h"
#include "support/plist/value.h"
#include "support/result.h"

namespace netvane {

// Names one session for the daemon's lifetime; never reused.
using SessionIdentity = std::uint64_t;

// A call refused for coming too often: not an answer for the client, whose
// connection is closed instead.
inline constexpr const char* kRefusalDomain = "netvane.admin.refused";
bool isRefusal(const Error& error);

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
    };

    // Per-user rates; the defaults leave a well-behaved client far below.
    struct Limits {
        RateLimiter::Rate begin, unpair, authority, tunnelScan, logLines;
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
    // In the scan's own order; runs outside the lock. A refusal when `uid`
    // scans too often.
    Result<std::vector<TunnelOwnerEntry>> scanTunnelOwners(std::uint32_t uid);

private:
    struct PendingPairing {
        std::string id;
        std::uint32_t uid = 0;
        Date created;
        SessionIdentity session = 0;
        PairingReply waiter;  // empty until awaited
    };

    // Call with lock_ held; the removed requests' waiters are returned so the
    // caller can call or destroy them after releasing it.
    std::vector<PairingReply> removePendingWhere(const std::function<bool(const PendingPairing&)>& matches);
    Status verifyPairRight(std::span<const std::uint8_t> authorization, const PeerIdentity& peer);
    // A line about what `uid` did, within that user's share of the log; the
    // first line after a dropped run says how many were dropped.
    void log(std::uint32_t uid, const std::string& line);

    const std::string version_;
    const Backends backends_;
    std::atomic<SessionIdentity> nextSession_{1};
    RateLimiter beginLimiter_, unpairLimiter_, authorityLimiter_, scanLimiter_, logLimiter_;
    std::mutex droppedLinesMutex_;
    std::map<std::uint32_t, std::uint64_t> droppedLines_;  // guarded by droppedLinesMutex_

    std::mutex lock_;
    PairingStore store_;                           // guarded by lock_
    std::map<std::string, PendingPairing> pending_;  // guarded by lock_
};

}  // namespace netvane
