#include "admin_protocol/admin_clients.h"

#include <cstdlib>

#include "admin_protocol/admin_protocols.h"

namespace netvane {
namespace {

using ipc::Argument;
using ipc::ReplySlot;

const MethodDescription& method(const ProtocolDescription& protocol, std::string_view selector) {
    // The selectors below are literals of the same table: a miss is a typo here.
    const MethodDescription* found = protocol.find(selector);
    if (!found) std::abort();
    return *found;
}

const plist::Value* valueIn(const ReplySlot& slot) { return std::get_if<plist::Value>(&slot); }

Error badReply() { return Error{ipc::kIpcErrorDomain, ipc::kBadReply, "the daemon's reply has the wrong shape"}; }

bool slotMatches(WireType type, const ReplySlot& slot) {
    if (type == WireType::optionalError) {
        return std::holds_alternative<std::monostate>(slot) || std::holds_alternative<Error>(slot);
    }
    return !std::holds_alternative<Error>(slot) && acceptsValue(type, valueIn(slot));
}

// Every reply is checked against the protocol here, whatever the transport,
// before its values are read.
Result<std::vector<ReplySlot>> call(AdminChannel& channel, ReplyDeadline deadline, const ProtocolDescription& protocol,
                                    std::string_view selector, std::vector<Argument> args) {
    const MethodDescription& described = method(protocol, selector);
    auto reply = channel.call(described, std::move(args), deadline);
    if (!reply) return reply.error();
    if (reply->size() != described.reply.size()) return badReply();
    for (std::size_t i = 0; i < reply->size(); ++i) {
        if (!slotMatches(described.reply[i], (*reply)[i])) return badReply();
    }
    return reply;
}

// Replies of the form (error or nil).
Status errorReply(Result<std::vector<ReplySlot>> reply) {
    if (!reply) return reply.error();
    if (auto* error = std::get_if<Error>(&(*reply)[0])) return *error;
    return {};
}

// Replies of the form (string or nil, error or nil).
Result<std::string> stringReply(Result<std::vector<ReplySlot>> reply) {
    if (!reply) return reply.error();
    if (auto* error = std::get_if<Error>(&(*reply)[1])) return *error;
    const plist::Value* value = valueIn((*reply)[0]);
    if (!value) return Error{ipc::kIpcErrorDomain, ipc::kBadReply, "the daemon answered with neither value nor error"};
    return *value->string();
}

Argument bytes(std::span<const std::uint8_t> data) { return plist::Value(plist::Data(data.begin(), data.end())); }

}  // namespace

Result<plist::Dictionary> AdminAppClient::status(const std::optional<std::string>& token) {
    Argument argument = token ? Argument(plist::Value(*token)) : std::nullopt;
    auto reply = call(*channel_, deadline_, AdminAppProtocol, "statusWithToken:reply:", {argument});
    if (!reply) return reply.error();
    return *valueIn((*reply)[0])->dictionary();
}

Result<std::string> AdminAppClient::beginPairing() {
    return stringReply(call(*channel_, deadline_, AdminAppProtocol, "beginPairingWithReply:", {}));
}

Result<std::string> AdminAppClient::awaitPairing(const std::string& requestID) {
    return stringReply(
        call(*channel_, deadline_, AdminAppProtocol, "awaitPairingWithRequestID:reply:", {plist::Value(requestID)}));
}

Status AdminAppClient::setServiceEnabled(const std::string& serviceID, bool enabled, const std::string& token) {
    return errorReply(call(*channel_, deadline_, AdminAppProtocol,
                           "setServiceEnabledWithServiceID:enabled:token:reply:",
                           {plist::Value(serviceID), plist::Value(enabled), plist::Value(token)}));
}

Status AdminAppClient::unpair(const std::string& token) {
    return errorReply(call(*channel_, deadline_, AdminAppProtocol, "unpairWithToken:reply:", {plist::Value(token)}));
}

Result<plist::Array> AdminAppClient::tunnelOwners() {
    auto reply = call(*channel_, deadline_, AdminAppProtocol, "tunnelOwnersWithReply:", {});
    if (!reply) return reply.error();
    return *valueIn((*reply)[0])->array();
}

Result<plist::Dictionary> AdminControlClient::status() {
    auto reply = call(*channel_, deadline_, AdminControlProtocol, "statusWithReply:", {});
    if (!reply) return reply.error();
    return *valueIn((*reply)[0])->dictionary();
}

Result<plist::Array> AdminControlClient::pendingPairings() {
    auto reply = call(*channel_, deadline_, AdminControlProtocol, "pendingPairingsWithReply:", {});
    if (!reply) return reply.error();
    return *valueIn((*reply)[0])->array();
}

Status AdminControlClient::approvePairing(const std::string& requestID, std::span<const std::uint8_t> authorization) {
    return errorReply(call(*channel_, deadline_, AdminControlProtocol,
                           "approvePairingWithRequestID:authorization:reply:",
                           {plist::Value(requestID), bytes(authorization)}));
}

Status AdminControlClient::denyPairing(const std::string& requestID) {
    return errorReply(
        call(*channel_, deadline_, AdminControlProtocol, "denyPairingWithRequestID:reply:", {plist::Value(requestID)}));
}

Status AdminControlClient::unpairAll(std::span<const std::uint8_t> authorization) {
    return errorReply(
        call(*channel_, deadline_, AdminControlProtocol, "unpairAllWithAuthorization:reply:", {bytes(authorization)}));
}

}  // namespace netvane
