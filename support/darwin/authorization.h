// An authorization reference with an owner: freed with default flags (its
// rights stay where they were granted) when the owner goes.
#pragma once

#include <Security/Authorization.h>

#include <memory>

namespace netvane {

struct AuthorizationFreer {
    void operator()(const AuthorizationOpaqueRef* reference) const {
        AuthorizationFree(const_cast<AuthorizationRef>(reference), kAuthorizationFlagDefaults);
    }
};
using UniqueAuthorization = std::unique_ptr<const AuthorizationOpaqueRef, AuthorizationFreer>;

}  // namespace netvane
