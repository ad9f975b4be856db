#include "daemon/admin_daemon.h"

#include <algorithm>
#include <set>
#include <thread>
#include <utility>

#include "admin_protocol/admin_constants.h"
#include "admin_protocol/admin_error.h"
#include "admin_protocol/admin_protocols.h"
#include "admin_protocol/token_digest.h"
#include "daemon/service_configurator.h"
#include "support/log.h"
#include "support/unicode.h"
#include "support/uuid.h"

namespace netvane {
namespace {

using namespace std::chrono_literals;

// The size of an authorization reference in external form; anything else is
// refused before the authority is asked.
constexpr std::size_t kAuthorizationExternalFormSize = 32;

// A client begins once per pairing attempt: a few in a row, then one every
// two seconds, is far beyond it; each begin logs a line.
constexpr RateLimiter::Rate kBeginRate{5, 2000ms};
// Each unpair rewrites and flushes the pairing file under the one lock that
// every other user's calls wait for.
constexpr RateLimiter::Rate kUnpairRate{5, 1000ms};
// Each approval or unpair-all is a request to the system's authority, which
// a person answers by hand beforehand.
constexpr RateLimiter::Rate kAuthorityRate{5, 1000ms};
// A status display asks every few seconds; a scan a second old answers it
// as well as a new one, and one that took long is not repeated at once.
constexpr SharedTunnelScan::Timing kTunnelScanTiming{1000ms, 4};
// The journal drops a service's lines past its own rate limit, whoever
// caused them; each user gets a share far below it.
constexpr RateLimiter::Rate kLogLineRate{20, 5000ms};

AdminDaemon::Backends withDefaults(AdminDaemon::Backends backends) {
    if (!backends.log) {
        backends.log = [logger = Logger(std::string(AdminConstants::daemonIdentifier), "daemon")](
                           std::string_view line) { logger.info(line); };
    }
    if (!backends.waitUntil) {
        backends.waitUntil = [](std::chrono::steady_clock::time_point until) { std::this_thread::sleep_until(until); };
    }
    return backends;
}

std::string uidText(std::uint32_t uid) { return "uid " + std::to_string(uid); }

}  // namespace

AdminDaemon::Limits AdminDaemon::defaultLimits() {
    return Limits{kBeginRate, kUnpairRate, kAuthorityRate, kLogLineRate, kTunnelScanTiming};
}

AdminDaemon::AdminDaemon(PairingStore store, std::string version, Backends backends, Limits limits)
    : version_(std::move(version)),
      backends_(withDefaults(std::move(backends))),
      beginLimiter_(limits.begin, backends_.clock),
      unpairLimiter_(limits.unpair, backends_.clock),
      authorityLimiter_(limits.authority, backends_.clock),
      logLimiter_(limits.logLines, backends_.clock),
      tunnelScan_(backends_.tunnelOwners, limits.tunnelScans, backends_.clock),
      store_(std::move(store)) {}

SessionIdentity AdminDaemon::makeSessionIdentity() { return nextSession_.fetch_add(1, std::memory_order_relaxed); }

void AdminDaemon::log(std::uint32_t uid, const std::string& line) {
    std::uint64_t dropped = 0;
    {
        MutexLock guard(droppedLinesMutex_);
        if (!logLimiter_.allow(uid)) {
            ++droppedLines_[uid];
            return;
        }
        if (auto it = droppedLines_.find(uid); it != droppedLines_.end()) {
            dropped = it->second;
            droppedLines_.erase(it);
        }
    }
    if (dropped > 0) {
        backends_.log(std::to_string(dropped) + " earlier lines about uid " + std::to_string(uid) +
                      " were dropped: too many");
    }
    backends_.log(line);
}

void AdminDaemon::pace(RateLimiter& limiter, std::uint32_t uid, const char* what) {
    const auto turn = limiter.reserve(uid);
    const auto now = backends_.clock ? backends_.clock() : std::chrono::steady_clock::now();
    if (turn <= now) return;
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(turn - now);
    log(uid, uidText(uid) + "'s " + what + " waits " + std::to_string(wait.count()) +
                 " ms for its turn: more than its share come in a row");
    backends_.waitUntil(turn);
}

Status AdminDaemon::logged(const Status& saved, std::uint32_t uid, const std::string& what) {
    if (!saved.ok()) log(uid, uidText(uid) + "'s " + what + " was not saved: " + saved.error().message);
    return saved;
}

std::vector<PairingReply> AdminDaemon::removePendingWhere(
    const std::function<bool(const PendingPairing&)>& matches) {
    std::vector<PairingReply> waiters;
    for (auto it = pending_.begin(); it != pending_.end();) {
        if (!matches(it->second)) {
            ++it;
            continue;
        }
        if (it->second.waiter) waiters.push_back(std::move(it->second.waiter));
        it = pending_.erase(it);
    }
    pendingChanged();
    return waiters;
}

void AdminDaemon::pendingChanged() {
    std::set<SessionIdentity> sessions;
    for (const auto& [id, request] : pending_) sessions.insert(request.session);
    MutexLock guard(pendingSessionsMutex_);
    pendingSessions_ = std::move(sessions);
}

// In every operation below, replies taken out of the table are held in locals
// declared before the lock guard, so they are called or destroyed only after
// the lock is released.

Result<std::string> AdminDaemon::beginPairing(std::uint32_t uid, SessionIdentity session) {
    pace(beginLimiter_, uid, "pairing request");
    auto id = makeUUIDString();
    if (!id) return id.error();
    std::vector<PairingReply> superseded;
    {
        MutexLock guard(lock_);
        superseded = removePendingWhere([uid](const PendingPairing& request) { return request.uid == uid; });
        pending_.insert_or_assign(*id, PendingPairing{*id, uid, Date::now(), session, {}});
        pendingChanged();
    }
    for (PairingReply& waiter : superseded) waiter(std::nullopt, toError(AdminError::unknownRequest));
    log(uid, "pairing requested by uid " + std::to_string(uid) + " as " + *id);
    return id;
}

void AdminDaemon::awaitPairing(const std::string& id, SessionIdentity session, PairingReply reply) {
    PairingReply replaced;
    std::optional<std::uint32_t> awaitedBy;
    {
        MutexLock guard(lock_);
        const auto it = pending_.find(id);
        if (it != pending_.end() && it->second.session == session) {
            replaced = std::exchange(it->second.waiter, std::move(reply));
            awaitedBy = it->second.uid;
        }
    }
    // Said once the waiter is in place: an approver may go ahead.
    if (awaitedBy) return log(*awaitedBy, "pairing " + id + " awaited by uid " + std::to_string(*awaitedBy));
    reply(std::nullopt, toError(AdminError::unknownRequest));
}

plist::Array AdminDaemon::pendingPairings(std::uint32_t uid) {
    std::vector<std::pair<Date, std::string>> requests;
    {
        MutexLock guard(lock_);
        for (const auto& [id, request] : pending_) {
            if (request.uid == uid) requests.emplace_back(request.created, id);
        }
    }
    std::stable_sort(requests.begin(), requests.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    plist::Array list;
    list.reserve(requests.size());
    for (auto& [created, id] : requests) {
        list.emplace_back(plist::Dictionary{
            {std::string(PendingPairingKey::id), std::move(id)},
            {std::string(PendingPairingKey::created), created},
        });
    }
    return list;
}

Status AdminDaemon::verifyPairRight(std::span<const std::uint8_t> authorization, const PeerIdentity& peer,
                                    const char* what) {
    const auto refused = [&](const std::string& why) -> Status {
        log(peer.uid, uidText(peer.uid) + "'s " + what + " was not authorized (pid " + std::to_string(peer.pid) +
                          "): " + why);
        return toError(AdminError::authorizationFailed);
    };
    if (authorization.size() != kAuthorizationExternalFormSize) {
        return refused("the authorization is " + std::to_string(authorization.size()) + " bytes, not " +
                       std::to_string(kAuthorizationExternalFormSize));
    }
    if (!backends_.authorizer) return refused("there is no authority to ask on this system");
    pace(authorityLimiter_, peer.uid, what);
    // IMPORTANT: the authority names the peer by pid and start time. A peer
    // that has exited may have left its pid to another process, whose rights
    // must not be taken for its own: the process must be alive on both sides
    // of the question.
    const auto alive = [&] { return !peer.process || peer.process->alive(); };
    if (!alive()) return refused("the process ended before the authority was asked");
    // Whatever the authority says went wrong, the client hears one answer;
    // the log says what it was, in the authority's words made safe to print.
    const Status granted = backends_.authorizer->checkRight(peer, authorization, AdminConstants::pairRight);
    if (!granted.ok()) return refused(terminalText(granted.error().message));
    if (!alive()) return refused("the process ended while the authority decided");
    return {};
}

Status AdminDaemon::approvePairing(const std::string& id, std::span<const std::uint8_t> authorization,
                                   const PeerIdentity& approver) {
    if (auto verified = verifyPairRight(authorization, approver, "approval"); !verified) return verified;
    PairingReply waiter;
    std::optional<Result<std::string>> token;
    {
        MutexLock guard(lock_);
        const auto it = pending_.find(id);
        if (it == pending_.end()) return toError(AdminError::unknownRequest);
        if (it->second.uid != approver.uid) return toError(AdminError::wrongUser);
        waiter = std::move(it->second.waiter);
        pending_.erase(it);
        pendingChanged();
        token.emplace(store_.pair(approver.uid));
    }
    // A failed pair drops the waiter uncalled: the token was never handed out.
    if (!token->ok()) return logged(token->error(), approver.uid, "approval of " + id);
    log(approver.uid, "pairing " + id + " approved for uid " + std::to_string(approver.uid));
    if (waiter) waiter(std::move(**token), std::nullopt);
    return {};
}

Status AdminDaemon::denyPairing(const std::string& id, std::uint32_t approverUID) {
    PairingReply waiter;
    {
        MutexLock guard(lock_);
        const auto it = pending_.find(id);
        if (it == pending_.end()) return toError(AdminError::unknownRequest);
        if (it->second.uid != approverUID) return toError(AdminError::wrongUser);
        waiter = std::move(it->second.waiter);
        pending_.erase(it);
        pendingChanged();
    }
    // A denial reads as a failed authorization to the waiting application.
    if (waiter) waiter(std::nullopt, toError(AdminError::authorizationFailed));
    return {};
}

Status AdminDaemon::unpair(std::string_view token, std::uint32_t uid) {
    pace(unpairLimiter_, uid, "unpair request");
    const std::vector<std::uint8_t> digest = PairingStore::digest(token);
    Status saved;
    {
        MutexLock guard(lock_);
        std::erase_if(store_.pairings, [&](const PairingStore::Pairing& pairing) {
            return (pairing.uid == uid) & TokenDigest::equal(pairing.digest, digest);
        });
        saved = store_.save();
    }
    return logged(saved, uid, "unpair");
}

Status AdminDaemon::unpairAll(std::span<const std::uint8_t> authorization, const PeerIdentity& approver) {
    if (auto verified = verifyPairRight(authorization, approver, "unpair-all"); !verified) return verified;
    Status saved;
    {
        MutexLock guard(lock_);
        store_.pairings.clear();
        saved = store_.save();
    }
    if (saved) log(approver.uid, "all pairings removed");
    return logged(saved, approver.uid, "unpair-all");
}

bool AdminDaemon::isPaired(std::string_view token, std::uint32_t uid) {
    MutexLock guard(lock_);
    return store_.isPaired(token, uid);
}

Status AdminDaemon::setServiceEnabled(const std::string& serviceID, bool enabled, std::string_view token,
                                      std::uint32_t uid) {
    if (!isPaired(token, uid)) return toError(AdminError::notPaired);
    std::string reason;
    auto changed = ServiceConfigurator::setEnabled(backends_.preferences.get(), serviceID, enabled, &reason);
    if (!changed) {
        // The wire carries only the fixed message; the administrator reads why here.
        // The ID is the caller's text and is only logged once it looks like an ID,
        // so that no caller can write lines of its own into the log.
        const std::string named = isPlausibleServiceID(serviceID) ? serviceID : "(an implausible ID)";
        if (!reason.empty()) {
            log(uid, "uid " + std::to_string(uid) + " could not set service " + named + ": " + terminalText(reason));
        }
        return changed;
    }
    log(uid, "uid " + std::to_string(uid) + " set service " + serviceID + " enabled=" + (enabled ? "true" : "false"));
    return {};
}

void AdminDaemon::sessionEnded(SessionIdentity session) {
    std::vector<PairingReply> dropped;
    MutexLock guard(lock_);
    dropped = removePendingWhere([session](const PendingPairing& request) { return request.session == session; });
}

bool AdminDaemon::hasPendingRequest(SessionIdentity session) {
    MutexLock guard(pendingSessionsMutex_);
    return pendingSessions_.contains(session);
}

std::vector<TunnelOwnerEntry> AdminDaemon::scanTunnelOwners() { return tunnelScan_.owners(); }

}  // namespace netvane
