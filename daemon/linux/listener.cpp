#include "daemon/linux/listener.h"

#include "admin_protocol/admin_protocols.h"
#include "daemon/sessions.h"

namespace netvane {
namespace {

using ipc::Argument;
using ipc::ReplySender;
using ipc::ReplySlot;

ReplySlot errorSlot(const std::optional<Error>& error) {
    if (error) return *error;
    return std::monostate{};
}

ErrorReply errorReply(const ReplySender& reply) {
    return [reply](std::optional<Error> error) { reply.send({errorSlot(error)}); };
}

PairingReply pairingReply(const ReplySender& reply) {
    return [reply](std::optional<std::string> value, std::optional<Error> error) {
        ReplySlot first = std::monostate{};
        if (value) first = plist::Value(std::move(*value));
        reply.send({std::move(first), errorSlot(error)});
    };
}

template <class Container>
std::function<void(Container)> valueReply(const ReplySender& reply) {
    return [reply](Container value) { reply.send({plist::Value(std::move(value))}); };
}

std::string text(Argument& argument) { return std::move(*argument->get<std::string>()); }
std::vector<std::uint8_t> bytes(Argument& argument) { return std::move(*argument->get<plist::Data>()); }

PeerIdentity identityOf(const ipc::PeerCredentials& peer) {
    return PeerIdentity{peer.pid, static_cast<std::uint32_t>(peer.uid), peer.startTime, peer.process};
}

class AppConnection : public ipc::Session {
public:
    AppConnection(std::shared_ptr<AdminDaemon> daemon, const ipc::PeerCredentials& peer)
        : session_(std::move(daemon), identityOf(peer)) {}

    void handle(const MethodDescription& method, std::vector<Argument> args, ReplySender reply) override {
        const std::string_view selector = method.selector;
        if (selector == "statusWithToken:reply:") {
            std::optional<std::string> token;
            if (args[0]) token = text(args[0]);
            session_.statusWithToken(std::move(token), valueReply<plist::Dictionary>(reply));
        } else if (selector == "beginPairingWithReply:") {
            session_.beginPairing(pairingReply(reply));
        } else if (selector == "awaitPairingWithRequestID:reply:") {
            session_.awaitPairing(text(args[0]), pairingReply(reply));
        } else if (selector == "setServiceEnabledWithServiceID:enabled:token:reply:") {
            session_.setServiceEnabled(text(args[0]), *args[1]->boolean(), text(args[2]), errorReply(reply));
        } else if (selector == "unpairWithToken:reply:") {
            session_.unpair(text(args[0]), errorReply(reply));
        } else if (selector == "tunnelOwnersWithReply:") {
            session_.tunnelOwners(valueReply<plist::Array>(reply));
        }
    }

    void invalidated() override { session_.ended(); }
    bool pinned() override { return session_.hasPendingRequest(); }

private:
    AppSession session_;
};

class ControlConnection : public ipc::Session {
public:
    ControlConnection(std::shared_ptr<AdminDaemon> daemon, const ipc::PeerCredentials& peer)
        : session_(std::move(daemon), identityOf(peer)) {}

    void handle(const MethodDescription& method, std::vector<Argument> args, ReplySender reply) override {
        const std::string_view selector = method.selector;
        if (selector == "statusWithReply:") {
            session_.statusWithReply(valueReply<plist::Dictionary>(reply));
        } else if (selector == "pendingPairingsWithReply:") {
            session_.pendingPairings(valueReply<plist::Array>(reply));
        } else if (selector == "approvePairingWithRequestID:authorization:reply:") {
            session_.approvePairing(text(args[0]), bytes(args[1]), errorReply(reply));
        } else if (selector == "denyPairingWithRequestID:reply:") {
            session_.denyPairing(text(args[0]), errorReply(reply));
        } else if (selector == "unpairAllWithAuthorization:reply:") {
            session_.unpairAll(bytes(args[0]), errorReply(reply));
        }
    }

private:
    ControlSession session_;
};

template <class Connection>
std::unique_ptr<ipc::Server> makeListener(UniqueFd listener, const ProtocolDescription& protocol,
                                          std::string requirement, std::shared_ptr<AdminDaemon> daemon,
                                          ipc::ServerLimits limits) {
    ipc::ServiceDefinition service{
        &protocol, std::move(requirement),
        [daemon](const ipc::PeerCredentials& peer) { return std::make_shared<Connection>(daemon, peer); },
        [daemon](std::uint32_t uid, const std::string& line) { daemon->log(uid, line); }};
    auto server = std::make_unique<ipc::Server>(std::move(listener), std::move(service), limits);
    server->start();
    return server;
}

}  // namespace

std::unique_ptr<ipc::Server> makeAppListener(UniqueFd listener, std::string requirement,
                                             std::shared_ptr<AdminDaemon> daemon, ipc::ServerLimits limits) {
    return makeListener<AppConnection>(std::move(listener), AdminAppProtocol, std::move(requirement),
                                       std::move(daemon), limits);
}

std::unique_ptr<ipc::Server> makeControlListener(UniqueFd listener, std::string requirement,
                                                 std::shared_ptr<AdminDaemon> daemon, ipc::ServerLimits limits) {
    return makeListener<ControlConnection>(std::move(listener), AdminControlProtocol, std::move(requirement),
                                           std::move(daemon), limits);
}

}  // namespace netvane
