// The Linux byte streams: POSIX sockets, and TLS over them with the system's
// trust store (which honours SSL_CERT_FILE and SSL_CERT_DIR), SNI and host-name
// verification.
//
// Names resolve on a resolver thread (resolver_threads.h) so that the
// attempt's deadline and cancellation also cut a hung resolver short; the
// thread then finishes on its own and its answer is dropped. Literal
// addresses skip it. The connector is
// thread-safe. Its TLS context (the TLS library loaded, the trust store read,
// which is when the trust-store variables are read) is built once, on a
// thread of the connector's own that the first TLS attempt starts before it
// resolves and connects: building costs more than both on a fast network.
// Attempts wait for it within their own limits; a build that failed is tried
// again by the next TLS attempt. Destroying the connector waits for a build
// still running.
#pragma once

#include <sys/socket.h>

#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "netcore/publicip/byte_stream.h"
#include "support/mutex.h"

struct ssl_ctx_st;

namespace netvane {

struct SocketAddress {
    sockaddr_storage storage{};
    socklen_t length = 0;
};

// Every address of `host` in the family of `version`, never the other one.
using AddressResolver =
    std::function<Result<std::vector<SocketAddress>>(const std::string& host, std::uint16_t port, IPVersion version)>;

Result<std::vector<SocketAddress>> resolveWithSystem(const std::string& host, std::uint16_t port, IPVersion version);

// The address of a literal, or nothing when `text` is no literal of `version`.
std::optional<SocketAddress> literalAddress(const std::string& text, std::uint16_t port, IPVersion version);

inline constexpr const char* kAddressInfoErrorDomain = "kCFStreamErrorDomainNetDB";

class SocketStreamConnector final : public StreamConnector {
public:
    explicit SocketStreamConnector(AddressResolver resolver = resolveWithSystem);
    ~SocketStreamConnector() override;
    SocketStreamConnector(const SocketStreamConnector&) = delete;
    SocketStreamConnector& operator=(const SocketStreamConnector&) = delete;

    Result<std::unique_ptr<ByteStream>> open(const StreamTarget& target, std::chrono::milliseconds timeout,
                                             const Cancellation* cancellation) override;

private:
    struct TLSBuild;
    // The build under way or done, started if there is none (or it failed).
    std::shared_ptr<TLSBuild> prepareTLS() NV_EXCLUDES(tlsMutex_);

    AddressResolver resolver_;
    Mutex tlsMutex_;
    std::shared_ptr<TLSBuild> tlsBuild_ NV_GUARDED_BY(tlsMutex_);
    std::thread tlsBuilder_ NV_GUARDED_BY(tlsMutex_);
};

}  // namespace netvane
