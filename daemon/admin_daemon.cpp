#include "daemon/admin_daemon.h"

#include <algorithm>
#include <utility>

#include "admin_protocol/admin_constants.h"
#include "admin_protocol/admin_error.h"
#include "admin_protocol/admin_protocols.h"
#include "admin_protocol/token_digest.h"
#include "daemon/service_configurator.h"
#include "support/log.h"
#include "support/uuid.h"

namespace netvane {
namespace {

// The size of an authorization reference in external form; anything else is
// refused before the authority is asked.
constexpr std::size_t kAuthorizationExternalFormSize = 32;

AdminDaemon::Backends withDefaultLog(AdminDaemon::Backends backends) {
    if (!backends.log) {
        backends.log = [logger = Logger(std::string(AdminConstants::daemonIdentifier), "daemon")](
                           std::string_view line) { logger.info(line); };
    }
    return backends;
}

}  // namespace

AdminDaemon::AdminDaemon(PairingStore store, std::string version, Backends backends)
    : version_(std::move(version)), backends_(withDefaultLog(std::move(backends))), store_(std::move(store)) {}

SessionIdentity AdminDaemon::makeSessionIdentity() { return nextSession_.fetch_add(1, std::memory_order_relaxed); }

void AdminDaemon::log(const std::string& line) const { backends_.log(line); }

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
    return waiters;
}

// In every operation below, replies taken out of the table are held in locals
// declared before the lock guard, so they are called or destroyed only after
// the lock is released.

Result<std::string> AdminDaemon::beginPairing(std::uint32_t uid, SessionIdentity session) {
    auto id = makeUUIDString();
    if (!id) return id.error();
    std::vector<PairingReply> superseded;
    {
        const std::lock_guard guard(lock_);
        superseded = removePendingWhere([uid](const PendingPairing& request) { return request.uid == uid; });
        pending_.insert_or_assign(*id, PendingPairing{*id, uid, Date::now(), session, {}});
    }
    for (PairingReply& waiter : superseded) waiter(std::nullopt, toError(AdminError::unknownRequest));
    log("pairing requested by uid " + std::to_string(uid) + " as " + *id);
    return id;
}

void AdminDaemon::awaitPairing(const std::string& id, SessionIdentity session, PairingReply reply) {
    PairingReply replaced;
    {
        const std::lock_guard guard(lock_);
        const auto it = pending_.find(id);
        if (it != pending_.end() && it->second.session == session) {
            replaced = std::exchange(it->second.waiter, std::move(reply));
            return;
        }
    }
    reply(std::nullopt, toError(AdminError::unknownRequest));
}

plist::Array AdminDaemon::pendingPairings(std::uint32_t uid) {
    std::vector<std::pair<Date, std::string>> requests;
    {
        const std::lock_guard guard(lock_);
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

Status AdminDaemon::verifyPairRight(std::span<const std::uint8_t> authorization, const PeerIdentity& peer) {
    if (authorization.size() != kAuthorizationExternalFormSize || !backends_.authorizer) {
        return toError(AdminError::authorizationFailed);
    }
    // Whatever the authority says went wrong, the client hears one answer.
    if (!backends_.authorizer->checkRight(peer, authorization, AdminConstants::pairRight).ok()) {
        return toError(AdminError::authorizationFailed);
    }
    return {};
}

Status AdminDaemon::approvePairing(const std::string& id, std::span<const std::uint8_t> authorization,
                                   const PeerIdentity& approver) {
    if (auto verified = verifyPairRight(authorization, approver); !verified) return verified;
    PairingReply waiter;
    std::optional<Result<std::string>> token;
    {
        const std::lock_guard guard(lock_);
        const auto it = pending_.find(id);
        if (it == pending_.end()) return toError(AdminError::unknownRequest);
        if (it->second.uid != approver.uid) return toError(AdminError::wrongUser);
        waiter = std::move(it->second.waiter);
        pending_.erase(it);
        token.emplace(store_.pair(approver.uid));
    }
    // A failed pair drops the waiter uncalled: the token was never handed out.
    if (!token->ok()) return token->error();
    log("pairing " + id + " approved for uid " + std::to_string(approver.uid));
    if (waiter) waiter(std::move(**token), std::nullopt);
    return {};
}

Status AdminDaemon::denyPairing(const std::string& id, std::uint32_t approverUID) {
    PairingReply waiter;
    {
        const std::lock_guard guard(lock_);
        const auto it = pending_.find(id);
        if (it == pending_.end()) return toError(AdminError::unknownRequest);
        if (it->second.uid != approverUID) return toError(AdminError::wrongUser);
        waiter = std::move(it->second.waiter);
        pending_.erase(it);
    }
    // A denial reads as a failed authorization to the waiting application.
    if (waiter) waiter(std::nullopt, toError(AdminError::authorizationFailed));
    return {};
}

Status AdminDaemon::unpair(std::string_view token, std::uint32_t uid) {
    const std::vector<std::uint8_t> digest = PairingStore::digest(token);
    const std::lock_guard guard(lock_);
    std::erase_if(store_.pairings, [&](const PairingStore::Pairing& pairing) {
        return (pairing.uid == uid) & TokenDigest::equal(pairing.digest, digest);
    });
    return store_.save();
}

Status AdminDaemon::unpairAll(std::span<const std::uint8_t> authorization, const PeerIdentity& approver) {
    if (auto verified = verifyPairRight(authorization, approver); !verified) return verified;
    Status saved;
    {
        const std::lock_guard guard(lock_);
        store_.pairings.clear();
        saved = store_.save();
    }
    if (saved) log("all pairings removed");
    return saved;
}

bool AdminDaemon::isPaired(std::string_view token, std::uint32_t uid) {
    const std::lock_guard guard(lock_);
    return store_.isPaired(token, uid);
}

Status AdminDaemon::setServiceEnabled(const std::string& serviceID, bool enabled, std::string_view token,
                                      std::uint32_t uid) {
    if (!isPaired(token, uid)) return toError(AdminError::notPaired);
    std::string reason;
    auto changed = ServiceConfigurator::setEnabled(backends_.preferences.get(), serviceID, enabled, &reason);
    if (!changed) {
        // The wire carries only the fixed message; the administrator reads why here.
        if (!reason.empty()) log("uid " + std::to_string(uid) + " could not set service " + serviceID + ": " + reason);
        return changed;
    }
    log("uid " + std::to_string(uid) + " set service " + serviceID + " enabled=" + (enabled ? "true" : "false"));
    return {};
}

void AdminDaemon::sessionEnded(SessionIdentity session) {
    std::vector<PairingReply> dropped;
    const std::lock_guard guard(lock_);
    dropped = removePendingWhere([session](const PendingPairing& request) { return request.session == session; });
}

std::vector<TunnelOwnerEntry> AdminDaemon::scanTunnelOwners() {
    if (!backends_.tunnelOwners) return {};
    return backends_.tunnelOwners->scan();
}

}  // namespace netvane
