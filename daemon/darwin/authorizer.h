// The macOS authority: rebuilds the authorization the control client made
// from its 32-byte external form and asks for the right with extend-rights
// only, never interacting with a user (the client obtained the right in its
// own process beforehand). The reference is freed on every path. The peer's
// identity is not consulted: the external form names the authorization.
//
// Not checkable by building alone: whether the system grants the right (the
// policy database's rule for it is the installer's). Thread-safe.
#pragma once

#include "daemon/authorizer.h"

namespace netvane {

class AuthorizationServicesAuthorizer final : public Authorizer {
public:
    Status checkRight(const PeerIdentity& peer, std::span<const std::uint8_t> externalForm,
                      std::string_view right) override;
};

}  // namespace netvane
