// TLS over a connected non-blocking socket, for the socket connector only.
#pragma once

#include <memory>
#include <string>

#include "netcore/publicip/byte_stream.h"
#include "netcore/publicip/attempt_waiter.h"

struct ssl_ctx_st;

namespace netvane {

// A client context that verifies peers against the system's trust store.
Result<ssl_ctx_st*> makeTLSContext();
void freeTLSContext(ssl_ctx_st* context);

// Completes the handshake with `host` (SNI and certificate name check) within
// the attempt's limits, then hands back the encrypted stream.
Result<std::unique_ptr<ByteStream>> startTLS(UniqueFd socket, AttemptWaiter waiter, ssl_ctx_st* context,
                                             const std::string& host);

}  // namespace netvane
