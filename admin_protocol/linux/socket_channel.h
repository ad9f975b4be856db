// The admin clients' transport on Linux: one Unix-domain stream socket per
// service, named after the service, in the daemon's runtime directory.
#pragma once

#include <string>

#include "admin_protocol/admin_clients.h"

namespace netvane {

inline constexpr const char* kDefaultRuntimeDirectory = "/run/netvane-admin";

// "<runtimeDirectory>/<service name>".
std::string appServiceSocketPath(const std::string& runtimeDirectory);
std::string controlServiceSocketPath(const std::string& runtimeDirectory);

// kUnreachable in ipc::kIpcErrorDomain when nobody listens; kTimedOut when
// the daemon takes no connection within `deadline`.
Result<AdminAppClient> connectAppClient(const std::string& runtimeDirectory = kDefaultRuntimeDirectory,
                                        ReplyDeadline deadline = std::nullopt);
Result<AdminControlClient> connectControlClient(const std::string& runtimeDirectory = kDefaultRuntimeDirectory,
                                                ReplyDeadline deadline = std::nullopt);

}  // namespace netvane
