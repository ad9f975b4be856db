// Client proxies for the daemon's two services, one method per selector.
// Each call blocks until its reply arrives. Errors the daemon sends come back
// as they crossed the wire (domain, code, description); transport failures
// are in ipc::kIpcErrorDomain (kUnreachable when no daemon listens).
#pragma once

#include <optional>
#include <string>

#include "support/ipc/client.h"
#include "support/plist/value.h"

namespace netvane {

// The daemon's runtime directory on Linux, holding one socket per service.
inline constexpr const char* kDefaultRuntimeDirectory = "/run/netvane-admin";

// "<runtimeDirectory>/<service name>".
std::string appServiceSocketPath(const std::string& runtimeDirectory);
std::string controlServiceSocketPath(const std::string& runtimeDirectory);

class AdminAppClient {
public:
    static Result<AdminAppClient> connect(const std::string& runtimeDirectory = kDefaultRuntimeDirectory);

    Result<plist::Dictionary> status(const std::optional<std::string>& token);
    Result<std::string> beginPairing();
    Result<std::string> awaitPairing(const std::string& requestID);
    Status setServiceEnabled(const std::string& serviceID, bool enabled, const std::string& token);
    Status unpair(const std::string& token);
    Result<plist::Array> tunnelOwners();

private:
    explicit AdminAppClient(ipc::Client client) : client_(std::move(client)) {}
    ipc::Client client_;
};

class AdminControlClient {
public:
    static Result<AdminControlClient> connect(const std::string& runtimeDirectory = kDefaultRuntimeDirectory);

    Result<plist::Dictionary> status();
    Result<plist::Array> pendingPairings();
    Status approvePairing(const std::string& requestID, std::span<const std::uint8_t> authorization);
    Status denyPairing(const std::string& requestID);
    Status unpairAll(std::span<const std::uint8_t> authorization);

private:
    explicit AdminControlClient(ipc::Client client) : client_(std::move(client)) {}
    ipc::Client client_;
};

}  // namespace netvane
