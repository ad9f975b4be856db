// The in-process cost of the dual-stack lookup against a local echo service
// on 127.0.0.1 and ::1: one iteration is one lookup (two attempts, one per
// family, in parallel), 1,000 iterations per run.
#include <benchmark/benchmark.h>

#include "netcore/publicip/linux/byte_stream.h"
#include "netcore/publicip/public_ip.h"
#include "tests/netcore/publicip/support/local_server.h"
#include "tests/netcore/publicip/support/loopback_names.h"
#include "tests/netcore/publicip/support/test_ca.h"

namespace netvane {
namespace {

using testing::LocalServer;
using testing::Peer;

void echoAddress(Peer& peer) {
    if (!peer.readRequest().empty()) peer.write(LocalServer::ok(peer.address() + "\n"));
}

void lookups(benchmark::State& state, bool tls) {
    const auto identity = tls ? std::optional(testing::trustedTestCA().issue({"dual.test"}, {})) : std::nullopt;
    LocalServer server(echoAddress, identity);
    SocketStreamConnector connector(testing::loopbackResolver());
    const std::string url = std::string(tls ? "https" : "http") + "://dual.test:" + std::to_string(server.port()) + "/ip";
    const PublicIPResult expected{"127.0.0.1", "::1", std::nullopt};
    for (auto _ : state) {
        const PublicIPResult result = PublicIPService::lookup(url, std::nullopt, {.connector = &connector});
        if (result != expected) {
            state.SkipWithError(("lookup failed: " + result.error.value_or("partial answer")).c_str());
            break;
        }
    }
}

void BM_LookupPlain(benchmark::State& state) { lookups(state, false); }
void BM_LookupTLS(benchmark::State& state) { lookups(state, true); }

BENCHMARK(BM_LookupPlain)->Iterations(1000)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LookupTLS)->Iterations(1000)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace netvane

BENCHMARK_MAIN();
