// The configuration path in process:
// - ConfigurationReading: one SystemConfigurationReader::read() against
//   whatever system bus and namespace it runs in (compare_with_nmcli.sh runs
//   it beside a NetworkManager holding 100 profiles);
// - ChangeToBatch: from the request that changes an address to the watcher's
//   handler, with the time of each change kept so the median can be told.
//   It works on a veth pair of its own, in a network namespace of its own
//   unless NETVANE_BENCH_IN_NAMESPACE=1 says the caller made one.
#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "netcore/shim/linux/nv_linux_netlink.h"
#include "netcore/sysconfig/network_change_watcher.h"
#include "netcore/sysconfig/system_configuration_reader.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

void ConfigurationReading(benchmark::State& state) {
    std::size_t services = 0;
    for (auto _ : state) {
        auto metadata = netvane::SystemConfigurationReader::read();
        services = metadata.services.size();
        benchmark::DoNotOptimize(metadata);
    }
    state.counters["services"] = static_cast<double>(services);
}
BENCHMARK(ConfigurationReading)->Unit(benchmark::kMillisecond);

// Adds or removes 10.77.0.1/24 on an interface with one routing request,
// waiting for the kernel's acknowledgement.
bool changeAddress(nv_nl_socket_t* socket, int index, bool add) {
    nv_nl_request_t request;
    const std::uint16_t flags = NLM_F_ACK | (add ? NLM_F_CREATE | NLM_F_EXCL : 0);
    auto* address = static_cast<ifaddrmsg*>(nv_nl_request(&request, add ? RTM_NEWADDR : RTM_DELADDR, flags,
                                                           sizeof(ifaddrmsg)));
    address->ifa_family = AF_INET;
    address->ifa_prefixlen = 24;
    address->ifa_index = static_cast<unsigned>(index);
    in_addr local{};
    ::inet_pton(AF_INET, "10.77.0.1", &local);
    nv_nl_put(&request, IFA_LOCAL, &local, sizeof local);
    nv_nl_put(&request, IFA_ADDRESS, &local, sizeof local);
    const nlmsghdr* reply = nv_nl_exchange(socket, &request, NLMSG_ERROR);
    const auto* acknowledgement = static_cast<const nlmsgerr*>(nv_nl_header(reply, sizeof(nlmsgerr)));
    return acknowledgement != nullptr && acknowledgement->error == 0;
}

void ChangeToBatch(benchmark::State& state) {
    const char* inNamespace = std::getenv("NETVANE_BENCH_IN_NAMESPACE");
    if ((!inNamespace || std::string(inNamespace) != "1") && ::unshare(CLONE_NEWNET) != 0) {
        state.SkipWithError("needs root for a network namespace of its own");
        return;
    }
    if (std::system("ip link add nvlat type veth peer name nvlat-far && ip link set nvlat up && "
                    "ip link set nvlat-far up") != 0) {
        state.SkipWithError("cannot make a veth pair");
        return;
    }
    const int index = static_cast<int>(::if_nametoindex("nvlat"));
    const netvane::NetlinkSocket requests(nv_nl_open(NETLINK_ROUTE));

    std::mutex mutex;
    std::condition_variable arrived;
    Clock::time_point delivered;
    bool seen = false;
    auto queue = std::make_shared<netvane::SerialQueue>();
    netvane::NetworkChangeWatcher watcher(queue, [&](const std::vector<std::string>&) {
        const std::lock_guard guard(mutex);
        delivered = Clock::now();
        seen = true;
        arrived.notify_all();
    });

    std::vector<double> latencies;
    bool add = true;
    for (auto _ : state) {
        {
            const std::lock_guard guard(mutex);
            seen = false;
        }
        const Clock::time_point changed = Clock::now();
        if (!changeAddress(requests.get(), index, add)) {
            state.SkipWithError("the kernel refused the address change");
            break;
        }
        add = !add;
        std::unique_lock guard(mutex);
        if (!arrived.wait_for(guard, 2s, [&] { return seen; })) {
            state.SkipWithError("no batch within two seconds");
            break;
        }
        const double seconds = std::chrono::duration<double>(delivered - changed).count();
        state.SetIterationTime(seconds);
        latencies.push_back(seconds * 1e3);
    }
    std::system("ip link del nvlat 2>/dev/null");
    if (latencies.empty()) return;
    std::sort(latencies.begin(), latencies.end());
    state.counters["median_ms"] = latencies[latencies.size() / 2];
    state.counters["p90_ms"] = latencies[latencies.size() * 9 / 10];
    state.counters["max_ms"] = latencies.back();
}
BENCHMARK(ChangeToBatch)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(200);

}  // namespace

BENCHMARK_MAIN();
