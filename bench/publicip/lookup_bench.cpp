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

#include <thread>

#include "bench/publicip/bare_client.h"
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

void floor(benchmark::State& state, bool tls) {
    (void)testing::trustedTestCA();  // the trust-store variables, before the client context reads them
    LocalServer server(echoAddress, identityFor(tls));
    const BareClient client(tls ? kHost : nullptr);
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
