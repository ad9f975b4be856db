// The floor of a lookup's exchange: a blocking TCP connection to a loopback
// address, a TLS handshake with the TLS library called directly (certificate
// and host name verified against the system's trust store, SNI sent) or none,
// the request written and the response read until the server closes. No name
// to resolve, no deadline, no cancellation: what any client must do at least.
// One client context serves every exchange; exchanges may run in parallel.
#pragma once

#include <cstdint>
#include <string>

#include "netcore/publicip/byte_stream.h"

struct ssl_ctx_st;

namespace netvane {

class BareClient {
public:
    // TLS for `host` (kept, not copied), or plain TCP when it is null.
    explicit BareClient(const char* host);
    ~BareClient();
    BareClient(const BareClient&) = delete;
    BareClient& operator=(const BareClient&) = delete;

    // The whole response from 127.0.0.1 or ::1, or "" on any failure.
    std::string exchange(IPVersion version, std::uint16_t port, const std::string& request) const;

private:
    const char* host_;
    ssl_ctx_st* context_ = nullptr;
};

}  // namespace netvane
