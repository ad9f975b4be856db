// Round trips of statusWithToken:reply: against a real daemon listener in
// this process, beside a D-Bus method round trip of the same shape to a
// trivial service on a private bus, with 1, 16 and 128 concurrent clients.
//
// Each benchmark thread is one client with its own connection; one
// iteration is one call and its decoded reply. Counters: latency_us is the
// mean round trip seen by a client, items_per_second the throughput of all
// clients together, errors the calls that failed (the target is none).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>

#include "admin_protocol/linux/socket_channel.h"
#include "bench/daemon/dbus_peer.h"
#include "daemon/admin_daemon.h"
#include "daemon/linux/listener.h"
#include "tests/temporary_directory.h"

namespace netvane {
namespace {

class GrantEverything : public Authorizer {
public:
    Status checkRight(const PeerIdentity&, std::span<const std::uint8_t>, std::string_view) override { return {}; }
};

// The daemon as netvane-admind builds it, serving in this process, with one
// pairing of this process's uid so that status does the full token check.
struct DaemonUnderTest {
    testing::TemporaryDirectory directory{"netvane-daemon-bench"};
    std::shared_ptr<AdminDaemon> daemon;
    std::unique_ptr<ipc::Server> listener;
    std::string token;
    std::string failure;

    DaemonUnderTest() {
        AdminDaemon::Backends backends;
        backends.authorizer = std::make_shared<GrantEverything>();
        backends.log = [](std::string_view) {};
        auto store = PairingStore::load(directory.path() + "/state");
        if (!store) {
            failure = store.error().message;
            return;
        }
        daemon = std::make_shared<AdminDaemon>(std::move(*store), "0.1.0", backends);
        auto socket = ipc::listenOnPath(appServiceSocketPath(directory.path()));
        if (!socket) {
            failure = socket.error().message;
            return;
        }
        // Every benchmark client is this process's uid, which may hold every
        // slot while nobody else asks for one; the daemon's limits stand.
        listener = makeAppListener(std::move(*socket), "", daemon);
        pairOnce();
    }
    ~DaemonUnderTest() {
        if (listener) listener->stop();
    }

    void pairOnce() {
        const SessionIdentity session = daemon->makeSessionIdentity();
        auto id = daemon->beginPairing(getuid(), session);
        if (!id) {
            failure = id.error().message;
            return;
        }
        daemon->awaitPairing(*id, session, [this](std::optional<std::string> value, std::optional<Error>) {
            token = value.value_or("");
        });
        const std::array<std::uint8_t, 32> authorization{};
        const Status approved = daemon->approvePairing(*id, authorization, PeerIdentity{getpid(), getuid(), 0});
        if (!approved.ok()) failure = approved.error().message;
    }
};

struct DBusUnderTest {
    testing::TemporaryDirectory directory{"netvane-dbus-bench"};
    std::unique_ptr<bench::DBusPeer> peer;
    std::string failure;

    DBusUnderTest() {
        auto started = bench::DBusPeer::start(directory.path());
        if (started) peer = std::move(*started);
        else failure = started.error().message;
    }
};

DaemonUnderTest& daemonUnderTest() {
    static DaemonUnderTest instance;
    return instance;
}

DBusUnderTest& dbusUnderTest() {
    static DBusUnderTest instance;
    return instance;
}

void reportFirstError(const Error& error) {
    static std::once_flag once;
    std::call_once(once, [&] { std::fprintf(stderr, "first error: %s\n", error.message.c_str()); });
}

// Runs the timed loop for one client; `roundTrip` makes one call and says
// whether it succeeded.
template <class RoundTrip>
void measure(benchmark::State& state, RoundTrip roundTrip) {
    std::int64_t errors = 0;
    const auto started = std::chrono::steady_clock::now();
    for (auto _ : state) {
        if (!roundTrip()) ++errors;
    }
    const std::chrono::duration<double, std::micro> elapsed = std::chrono::steady_clock::now() - started;
    state.SetItemsProcessed(state.iterations());
    state.counters["latency_us"] =
        benchmark::Counter(elapsed.count() / static_cast<double>(state.iterations()), benchmark::Counter::kAvgThreads);
    state.counters["errors"] = benchmark::Counter(static_cast<double>(errors));
}

void BM_StatusOverDaemonSocket(benchmark::State& state) {
    DaemonUnderTest& under = daemonUnderTest();
    if (!under.failure.empty()) return state.SkipWithError(under.failure.c_str());
    auto client = connectAppClient(under.directory.path());
    if (!client) return state.SkipWithError(client.error().message.c_str());
    const std::optional<std::string> token = under.token;
    measure(state, [&] {
        auto status = client->status(token);
        if (!status) {
            reportFirstError(status.error());
            return false;
        }
        const plist::Value* paired = status->find("paired");
        return paired && paired->boolean() && *paired->boolean();
    });
}

void BM_StatusOverDBus(benchmark::State& state) {
    DBusUnderTest& under = dbusUnderTest();
    if (!under.failure.empty()) return state.SkipWithError(under.failure.c_str());
    auto client = bench::DBusStatusClient::connect(under.peer->address());
    if (!client) return state.SkipWithError(client.error().message.c_str());
    const std::string token = daemonUnderTest().token;
    measure(state, [&] {
        const Status status = client->status(token);
        if (!status.ok()) reportFirstError(status.error());
        return status.ok();
    });
}

BENCHMARK(BM_StatusOverDaemonSocket)->Threads(1)->Threads(16)->Threads(128)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_StatusOverDBus)->Threads(1)->Threads(16)->Threads(128)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace netvane

BENCHMARK_MAIN();
