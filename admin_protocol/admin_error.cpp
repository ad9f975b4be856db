#include "admin_protocol/admin_error.h"

#include <string>

namespace netvane {

std::optional<AdminError> adminErrorFromRawValue(std::int64_t rawValue) {
    if (rawValue < 1 || rawValue > 7) return std::nullopt;
    return static_cast<AdminError>(rawValue);
}

std::string_view errorDescription(AdminError error) {
    switch (error) {
    case AdminError::notPaired: return "This app isn't paired with the admin helper";
    case AdminError::unknownService: return "No such network service";
    case AdminError::unknownRequest: return "The pairing request has expired";
    case AdminError::authorizationFailed: return "Administrator authorization failed";
    case AdminError::wrongUser: return "The pairing request belongs to another user";
    case AdminError::configurationFailed: return "macOS refused the network configuration change";
    case AdminError::alreadyPending: return "A pairing request is already waiting for approval";
    }
    return "";
}

Error toError(AdminError error) {
    return Error{kAdminErrorDomain, static_cast<std::int64_t>(error), std::string(errorDescription(error))};
}

std::optional<AdminError> asAdminError(const Error& error) {
    if (error.domain != kAdminErrorDomain) return std::nullopt;
    return adminErrorFromRawValue(error.code);
}

}  // namespace netvane
