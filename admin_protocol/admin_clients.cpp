#include "admin_protocol/admin_clients.h"

#include <cstdlib>

#include "admin_protocol/admin_constants.h"
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

std::string appServiceSocketPath(const std::string& runtimeDirectory) {
    return runtimeDirectory + "/" + AdminConstants::appServiceName();
}

std::string controlServiceSocketPath(const std::string& runtimeDirectory) {
    return runtimeDirectory + "/" + AdminConstants::controlServiceName();
}

Result<AdminAppClient> AdminAppClient::connect(const std::string& runtimeDirectory) {
    auto client = ipc::Client::connect(appServiceSocketPath(runtimeDirectory));
    if (!client) return client.error();
    return AdminAppClient(std::move(*client));
}

Result<plist::Dictionary> AdminAppClient::status(const std::optional<std::string>& token) {
    Argument argument = token ? Argument(plist::Value(*token)) : std::nullopt;
    auto reply = client_.call(method(AdminAppProtocol, "statusWithToken:reply:"), {argument});
    if (!reply) return reply.error();
    return *valueIn((*reply)[0])->dictionary();
}

Result<std::string> AdminAppClient::beginPairing() {
    return stringReply(client_.call(method(AdminAppProtocol, "beginPairingWithReply:"), {}));
}

Result<std::string> AdminAppClient::awaitPairing(const std::string& requestID) {
    return stringReply(client_.call(method(AdminAppProtocol, "awaitPairingWithRequestID:reply:"),
                                    {plist::Value(requestID)}));
}

Status AdminAppClient::setServiceEnabled(const std::string& serviceID, bool enabled, const std::string& token) {
    return errorReply(client_.call(method(AdminAppProtocol, "setServiceEnabledWithServiceID:enabled:token:reply:"),
                                   {plist::Value(serviceID), plist::Value(enabled), plist::Value(token)}));
}

Status AdminAppClient::unpair(const std::string& token) {
    return errorReply(client_.call(method(AdminAppProtocol, "unpairWithToken:reply:"), {plist::Value(token)}));
}

Result<plist::Array> AdminAppClient::tunnelOwners() {
    auto reply = client_.call(method(AdminAppProtocol, "tunnelOwnersWithReply:"), {});
    if (!reply) return reply.error();
    return *valueIn((*reply)[0])->array();
}

Result<AdminControlClient> AdminControlClient::connect(const std::string& runtimeDirectory) {
    auto client = ipc::Client::connect(controlServiceSocketPath(runtimeDirectory));
    if (!client) return client.error();
    return AdminControlClient(std::move(*client));
}

Result<plist::Dictionary> AdminControlClient::status() {
    auto reply = client_.call(method(AdminControlProtocol, "statusWithReply:"), {});
    if (!reply) return reply.error();
    return *valueIn((*reply)[0])->dictionary();
}

Result<plist::Array> AdminControlClient::pendingPairings() {
    auto reply = client_.call(method(AdminControlProtocol, "pendingPairingsWithReply:"), {});
    if (!reply) return reply.error();
    return *valueIn((*reply)[0])->array();
}

Status AdminControlClient::approvePairing(const std::string& requestID, std::span<const std::uint8_t> authorization) {
    return errorReply(client_.call(method(AdminControlProtocol, "approvePairingWithRequestID:authorization:reply:"),
                                   {plist::Value(requestID), bytes(authorization)}));
}

Status AdminControlClient::denyPairing(const std::string& requestID) {
    return errorReply(
        client_.call(method(AdminControlProtocol, "denyPairingWithRequestID:reply:"), {plist::Value(requestID)}));
}

Status AdminControlClient::unpairAll(std::span<const std::uint8_t> authorization) {
    return errorReply(
        client_.call(method(AdminControlProtocol, "unpairAllWithAuthorization:reply:"), {bytes(authorization)}));
}

}  // namespace netvane
