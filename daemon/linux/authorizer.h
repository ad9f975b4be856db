// The Linux authority: asks the system's authorization service over the
// system bus whether the connected peer process holds the right, without
// user interaction (the control client obtained it beforehand in its own
// process). Unreachable service, refusal and every other failure are errors.
// Thread-safe: each check opens its own bus connection.
#pragma once

#include "daemon/authorizer.h"

namespace netvane {

class PolkitAuthorizer : public Authorizer {
public:
    Status checkRight(const PeerIdentity& peer, std::span<const std::uint8_t> externalForm,
                      std::string_view right) override;
};

}  // namespace netvane
