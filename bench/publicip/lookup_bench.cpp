// The in-process cost of the dual-stack lookup against a local echo service
// on 127.0.0.1 and ::1: one iteration is one lookup (two attempts, one per
// family, in parallel), 1,000 iterations per run.
//
// Beside it, the floor of the same work: for each family, in parallel as the
// lookup runs them, a bare TCP connection to the address, the same TLS
// handshake (certificate and name verified against the same trust store),
// the same request and a read until the server closes. The floor keeps one
// client context across iterations, as the lookup's connector keeps its own,
// and names no host to resolve.
#include <benchmark/benchmark.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "netcore/publicip/http_exchange.h"
#include "netcore/publicip/linux/socket_stream.h"
#include "netcore/publicip/public_ip.h"
#include "tests/netcore/publicip/support/local_server.h"
#include "tests/netcore/publicip/support/loopback_names.h"
#include "tests/netcore/publicip/support/test_ca.h"

namespace netvane {
namespace {

using testing::LocalServer;
using testing::Peer;

constexpr const char* kHost = "dual.test";

void echoAddress(Peer& peer) {
    if (!peer.readRequest().empty()) peer.write(LocalServer::ok(peer.address() + "\n"));
}

std::string lookupURL(bool tls, const LocalServer& server) {
    return std::string(tls ? "https" : "http") + "://" + kHost + ":" + std::to_string(server.port()) + "/ip";
}

std::optional<testing::TLSIdentity> identityFor(bool tls) {
    return tls ? std::optional(testing::trustedTestCA().issue({kHost}, {})) : std::nullopt;
}

void lookups(benchmark::State& state, bool tls) {
    LocalServer server(echoAddress, identityFor(tls));
    SocketStreamConnector connector(testing::loopbackResolver());
    const std::string url = lookupURL(tls, server);
    const PublicIPResult expected{"127.0.0.1", "::1", std::nullopt};
    for (auto _ : state) {
        const PublicIPResult result = PublicIPService::lookup(url, std::nullopt, {.connector = &connector});
        if (result != expected) {
            state.SkipWithError(("lookup failed: " + result.error.value_or("partial answer")).c_str());
            break;
        }
    }
}

// One family's bare exchange: the whole response, or empty on any failure.
class BareClient {
public:
    explicit BareClient(bool tls) {
        if (!tls) return;
        context_ = SSL_CTX_new(TLS_client_method());
        SSL_CTX_set_min_proto_version(context_, TLS1_2_VERSION);
        SSL_CTX_set_verify(context_, SSL_VERIFY_PEER, nullptr);
        SSL_CTX_set_default_verify_paths(context_);
    }
    ~BareClient() { SSL_CTX_free(context_); }
    BareClient(const BareClient&) = delete;
    BareClient& operator=(const BareClient&) = delete;

    std::string exchange(IPVersion version, std::uint16_t port, const std::string& request) const {
        const int fd = connectTo(version, port);
        if (fd < 0) return "";
        std::string response = context_ ? overTLS(fd, request) : plain(fd, request);
        ::close(fd);
        return response;
    }

private:
    static int connectTo(IPVersion version, std::uint16_t port) {
        const auto address = literalAddress(version == IPVersion::v4 ? "127.0.0.1" : "::1", port, version);
        const int fd = ::socket(address->storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&address->storage), address->length) == 0) {
            return fd;
        }
        if (fd >= 0) ::close(fd);
        return -1;
    }

    static std::string plain(int fd, const std::string& request) {
        if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) return "";
        std::string response;
        char buffer[65'536];
        ssize_t n;
        while ((n = ::recv(fd, buffer, sizeof buffer, 0)) > 0) response.append(buffer, static_cast<std::size_t>(n));
        return response;
    }

    std::string overTLS(int fd, const std::string& request) const {
        SSL* ssl = SSL_new(context_);
        std::string response;
        SSL_set_fd(ssl, fd);
        SSL_set_tlsext_host_name(ssl, kHost);
        SSL_set1_host(ssl, kHost);
        if (SSL_connect(ssl) == 1 && SSL_write(ssl, request.data(), static_cast<int>(request.size())) > 0) {
            char buffer[65'536];
            int n;
            while ((n = SSL_read(ssl, buffer, sizeof buffer)) > 0) response.append(buffer, static_cast<std::size_t>(n));
        }
        SSL_free(ssl);
        return response;
    }

    SSL_CTX* context_ = nullptr;
};

void floor(benchmark::State& state, bool tls) {
    (void)testing::trustedTestCA();  // the trust-store variables, before the client context reads them
    LocalServer server(echoAddress, identityFor(tls));
    const BareClient client(tls);
    const std::string request = PublicIPService::requestText(*PublicIPService::parseLookupURL(lookupURL(tls, server)));
    for (auto _ : state) {
        std::string v4;
        std::thread other([&] { v4 = client.exchange(IPVersion::v4, server.port(), request); });
        const std::string v6 = client.exchange(IPVersion::v6, server.port(), request);
        other.join();
        if (v4.find("\r\n\r\n127.0.0.1\n") == std::string::npos || v6.find("\r\n\r\n::1\n") == std::string::npos) {
            state.SkipWithError("bare exchange failed");
            break;
        }
    }
}

void BM_LookupPlain(benchmark::State& state) { lookups(state, false); }
void BM_LookupTLS(benchmark::State& state) { lookups(state, true); }
void BM_FloorPlain(benchmark::State& state) { floor(state, false); }
void BM_FloorTLS(benchmark::State& state) { floor(state, true); }

BENCHMARK(BM_LookupPlain)->Iterations(1000)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FloorPlain)->Iterations(1000)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LookupTLS)->Iterations(1000)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FloorTLS)->Iterations(1000)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace netvane

BENCHMARK_MAIN();
