// In-process cost of one full interface reading and of one tunnel-owner scan
// on whatever machine (or network namespace) it runs in; compare_with_iproute2.sh
// runs it inside a namespace with 200 veth interfaces and 10 held tuns. On
// Linux the floors they are judged by, and the measurements behind two
// decisions of the reader, run beside them (linux/kernel_floors.cpp).
#include <benchmark/benchmark.h>

#include "netcore/interfaces/interface_reader.h"
#include "netcore/sysconfig/tunnel_owners.h"

namespace {

void FullReading(benchmark::State& state) {
    netvane::InterfaceReader reader;
    std::size_t interfaces = 0;
    for (auto _ : state) {
        auto snapshots = reader.snapshot();
        interfaces = snapshots.size();
        benchmark::DoNotOptimize(snapshots);
    }
    state.counters["interfaces"] = static_cast<double>(interfaces);
}
BENCHMARK(FullReading)->Unit(benchmark::kMillisecond);

void TunnelScan(benchmark::State& state) {
    std::size_t owners = 0;
    for (auto _ : state) {
        auto result = netvane::TunnelOwners::scan();
        owners = result.size();
        benchmark::DoNotOptimize(result);
    }
    state.counters["owners"] = static_cast<double>(owners);
}
BENCHMARK(TunnelScan)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
