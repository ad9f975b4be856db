// The authorization seam: does the connected control peer hold the pair right?
//
// The daemon never interacts with a user; the control client must have
// obtained the right in its own process before calling. On Linux the check
// goes to the system's authority over the system bus; tests use a fake.
// Implementations are called outside the daemon's lock, from any thread.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <span>

#include "support/process.h"
#include "support/result.h"

namespace netvane {

// Who is asking: filled by the transport from the connection's credentials.
struct PeerIdentity {
    pid_t pid = 0;
    std::uint32_t uid = 0;
    std::uint64_t startTime = 0;  // of pid, so a reused pid is not mistaken for the peer
    // The peer process pinned by the transport (a pidfd on Linux), checked
    // alive around every question about its rights. Null where the transport
    // pins the peer by other means.
    std::shared_ptr<const ProcessHandle> process = nullptr;

    bool operator==(const PeerIdentity&) const = default;
};

class Authorizer {
public:
    virtual ~Authorizer() = default;
    // Ok when `peer` holds the right named by `right`; any failure or refusal
    // is an error (the daemon reports it as authorizationFailed).
    virtual Status checkRight(const PeerIdentity& peer, std::span<const std::uint8_t> externalForm,
                              std::string_view right) = 0;
};

}  // namespace netvane
