#include "daemon/sessions.h"

#include <utility>

#include "admin_protocol/admin_constants.h"
#include "admin_protocol/admin_protocols.h"

namespace netvane {
namespace {

plist::Dictionary statusDictionary(const AdminDaemon& daemon) {
    return plist::Dictionary{
        {std::string(AdminStatusKey::version), daemon.version()},
        {std::string(AdminStatusKey::protocolVersion), AdminConstants::protocolVersion},
    };
}

std::optional<Error> errorOf(const Status& status) {
    if (status) return std::nullopt;
    return status.error();
}

}  // namespace

AppSession::AppSession(std::shared_ptr<AdminDaemon> daemon, PeerIdentity peer)
    : daemon_(std::move(daemon)), peer_(peer), identity_(daemon_->makeSessionIdentity()) {}

void AppSession::statusWithToken(std::optional<std::string> token, DictionaryReply reply) {
    const bool paired = token && daemon_->isPaired(*token, peer_.uid);
    plist::Dictionary status = statusDictionary(*daemon_);
    status.set(std::string(AdminStatusKey::paired), paired);
    reply(std::move(status));
}

void AppSession::beginPairing(PairingReply reply) {
    auto id = daemon_->beginPairing(peer_.uid, identity_);
    if (!id) return reply(std::nullopt, id.error());
    reply(std::move(*id), std::nullopt);
}

void AppSession::awaitPairing(std::string id, PairingReply reply) {
    daemon_->awaitPairing(id, identity_, std::move(reply));
}

void AppSession::setServiceEnabled(std::string serviceID, bool enabled, std::string token, ErrorReply reply) {
    reply(errorOf(daemon_->setServiceEnabled(serviceID, enabled, token, peer_.uid)));
}

void AppSession::unpair(std::string token, ErrorReply reply) { reply(errorOf(daemon_->unpair(token, peer_.uid))); }

void AppSession::tunnelOwners(ArrayReply reply) {
    plist::Array owners;
    for (TunnelOwnerEntry& entry : daemon_->scanTunnelOwners()) {
        owners.emplace_back(plist::Dictionary{
            {std::string(TunnelOwnerKey::interface), std::move(entry.interface)},
            {std::string(TunnelOwnerKey::name), std::move(entry.name)},
            {std::string(TunnelOwnerKey::pid), static_cast<std::int64_t>(entry.pid)},
            {std::string(TunnelOwnerKey::path), std::move(entry.path)},
        });
    }
    reply(std::move(owners));
}

void AppSession::ended() { daemon_->sessionEnded(identity_); }

ControlSession::ControlSession(std::shared_ptr<AdminDaemon> daemon, PeerIdentity peer)
    : daemon_(std::move(daemon)), peer_(peer), identity_(daemon_->makeSessionIdentity()) {}

void ControlSession::statusWithReply(DictionaryReply reply) { reply(statusDictionary(*daemon_)); }

void ControlSession::pendingPairings(ArrayReply reply) { reply(daemon_->pendingPairings(peer_.uid)); }

void ControlSession::approvePairing(std::string id, std::vector<std::uint8_t> authorization, ErrorReply reply) {
    reply(errorOf(daemon_->approvePairing(id, authorization, peer_)));
}

void ControlSession::denyPairing(std::string id, ErrorReply reply) {
    reply(errorOf(daemon_->denyPairing(id, peer_.uid)));
}

void ControlSession::unpairAll(std::vector<std::uint8_t> authorization, ErrorReply reply) {
    reply(errorOf(daemon_->unpairAll(authorization, peer_)));
}

}  // namespace netvane
