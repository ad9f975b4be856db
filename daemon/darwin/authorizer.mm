#include "daemon/darwin/authorizer.h"

#include <Security/Security.h>

#include <cstring>
#include <string>

#include "support/darwin/authorization.h"
#include "support/darwin/foundation_values.h"

namespace netvane {

Status AuthorizationServicesAuthorizer::checkRight(const PeerIdentity&, std::span<const std::uint8_t> externalForm,
                                                   std::string_view right) {
    AuthorizationExternalForm form{};
    if (externalForm.size() != sizeof form.bytes) {
        return Error{"netvane.authority", EINVAL, "an authorization's external form is 32 bytes"};
    }
    std::memcpy(form.bytes, externalForm.data(), sizeof form.bytes);
    AuthorizationRef reference = nullptr;
    const OSStatus created = AuthorizationCreateFromExternalForm(&form, &reference);
    const UniqueAuthorization owner(reference);
    if (created != errAuthorizationSuccess) return osStatusError(created, "AuthorizationCreateFromExternalForm");
    if (reference == nullptr) return Error{"netvane.authority", EINVAL, "the external form named no authorization"};

    const std::string name(right);
    AuthorizationItem item = {name.c_str(), 0, nullptr, 0};
    AuthorizationRights rights = {1, &item};
    const OSStatus granted =
        AuthorizationCopyRights(reference, &rights, nullptr, kAuthorizationFlagExtendRights, nullptr);
    if (granted != errAuthorizationSuccess) return osStatusError(granted, "AuthorizationCopyRights");
    return {};
}

}  // namespace netvane
