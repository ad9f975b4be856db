// The in-process cost of the dual-stack lookup against a local echo service
// on 127.0.0.1 and ::1: one iteration is one lookup (two attempts, one per
// family, in parallel), 1,000 iterations per run; every lookup after the
// first, as a library caller that looks up many times makes them.
//
// Beside it, the floor of the same work (bare_client.h): for each family, in
// parallel as the lookup runs them, a bare TCP connection to the address,
// the same TLS handshake (certificate and name verified against the same
// trust store), the same request and a read until the server closes. The
// floor keeps one client context across iterations, as the lookup's
// connector keeps its own, and names no host to resolve. BM_LookupBesideFloor
// takes turns between the two, so that their ratio holds on a busy machine.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "bench/publicip/bare_client.h"
#include "netcore/publicip/http_exchange.h"
#include "netcore/publicip/linux/byte_stream.h"
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

// One lookup through a connector of its own, as a library caller makes them.
class Lookups {
public:
    explicit Lookups(const LocalServer& server, bool tls)
        : url_(lookupURL(tls, server)), connector_(testing::loopbackResolver()) {}

    bool once() {
        const PublicIPResult result = PublicIPService::lookup(url_, std::nullopt, {.connector = &connector_});
        return result == PublicIPResult{"127.0.0.1", "::1", std::nullopt};
    }

private:
    std::string url_;
    SocketStreamConnector connector_;
};

// The floor of one lookup: the bare exchange over both families in parallel.
class Floor {
public:
    Floor(const LocalServer& server, bool tls)
        : port_(server.port()),
          client_(tls ? kHost : nullptr),
          request_(PublicIPService::requestText(*PublicIPService::parseLookupURL(lookupURL(tls, server)))) {}

    bool once() const {
        std::string v4;
        std::thread other([&] { v4 = client_.exchange(IPVersion::v4, port_, request_); });
        const std::string v6 = client_.exchange(IPVersion::v6, port_, request_);
        other.join();
        return v4.find("\r\n\r\n127.0.0.1\n") != std::string::npos && v6.find("\r\n\r\n::1\n") != std::string::npos;
    }

private:
    std::uint16_t port_;
    BareClient client_;
    std::string request_;
};

template <class Client>
void run(benchmark::State& state, bool tls) {
    (void)testing::trustedTestCA();  // the trust-store variables, before any client context reads them
    LocalServer server(echoAddress, identityFor(tls));
    Client client(server, tls);
    for (auto _ : state) {
        if (!client.once()) {
            state.SkipWithError("an exchange failed");
            break;
        }
    }
}

double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

// A lookup and the floor's exchange in turn, each timed on its own, so that
// both meet the same machine however busy it is: the figure is the lookup's,
// and the counters hold both medians and their ratio.
void paired(benchmark::State& state, bool tls) {
    (void)testing::trustedTestCA();
    LocalServer server(echoAddress, identityFor(tls));
    Lookups lookups(server, tls);
    const Floor floor(server, tls);
    std::vector<double> lookupSeconds, floorSeconds;
    using Clock = std::chrono::steady_clock;
    for (auto _ : state) {
        const auto start = Clock::now();
        const bool looked = lookups.once();
        const auto middle = Clock::now();
        const bool floored = floor.once();
        const auto end = Clock::now();
        if (!looked || !floored) {
            state.SkipWithError("an exchange failed");
            return;
        }
        lookupSeconds.push_back(std::chrono::duration<double>(middle - start).count());
        floorSeconds.push_back(std::chrono::duration<double>(end - middle).count());
        state.SetIterationTime(lookupSeconds.back());
    }
    const double lookup = median(lookupSeconds), bare = median(floorSeconds);
    state.counters["lookup_median_us"] = lookup * 1e6;
    state.counters["floor_median_us"] = bare * 1e6;
    state.counters["lookup_over_floor"] = lookup / bare;
}

void BM_LookupPlain(benchmark::State& state) { run<Lookups>(state, false); }
void BM_LookupTLS(benchmark::State& state) { run<Lookups>(state, true); }
void BM_FloorPlain(benchmark::State& state) { run<Floor>(state, false); }
void BM_FloorTLS(benchmark::State& state) { run<Floor>(state, true); }
void BM_LookupBesideFloorPlain(benchmark::State& state) { paired(state, false); }
void BM_LookupBesideFloorTLS(benchmark::State& state) { paired(state, true); }

BENCHMARK(BM_LookupPlain)->Iterations(1000)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FloorPlain)->Iterations(1000)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LookupTLS)->Iterations(1000)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_FloorTLS)->Iterations(1000)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LookupBesideFloorPlain)->Iterations(1000)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_LookupBesideFloorTLS)->Iterations(1000)->UseManualTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace netvane

BENCHMARK_MAIN();
