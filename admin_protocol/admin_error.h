// The daemon's own failures: codes 1 to 7 with fixed English messages, in the
// error domain the clients look for. `toError` is the single place where an
// AdminError becomes the common Error value that crosses the wire.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "support/result.h"

namespace netvane {

enum class AdminError : std::int64_t {
    notPaired = 1,
    unknownService = 2,
    unknownRequest = 3,  // also every lookup of an identifier no longer pending
    authorizationFailed = 4,
    wrongUser = 5,
    configurationFailed = 6,
    alreadyPending = 7,  // shared vocabulary; the daemon never raises it
};

inline constexpr const char* kAdminErrorDomain = "com.tarnwick.Netvane.admin";

std::optional<AdminError> adminErrorFromRawValue(std::int64_t rawValue);
std::string_view errorDescription(AdminError error);
Error toError(AdminError error);
// The AdminError an Error carries, if it is one.
std::optional<AdminError> asAdminError(const Error& error);

}  // namespace netvane
