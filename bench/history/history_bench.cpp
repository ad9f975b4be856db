// Rate history at the size the application keeps: 50 interfaces, each with
// raw samples for 1 h at 1 s, minute buckets for 7 days and hour buckets for
// a year (22,440 buckets, 1.44 MB of packed payload per interface).
//
//   history_bench [benchmark flags]
//   history_bench --write-document FILE   (the 50-interface file, for compare_plistlib.py)
//   history_bench --memory                (heap and resident size of the histories)
//
// Save and load sit beside their floors: a plain write and a plain read of
// the same number of bytes (also with the fsync that an atomic save needs).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>

#include "netcore/history/history_store.h"
#include "support/files.h"
#include "support/plist/plist.h"

using namespace netvane;

namespace {

constexpr std::size_t kInterfaces = 50;
const RateHistory::Retention kRetention{3600, 7 * 86400, 365 * 86400};
constexpr std::size_t kRawBuckets = 3600;
constexpr std::size_t kMinuteBuckets = 7 * 1440;
constexpr std::size_t kHourBuckets = 365 * 24;
constexpr double kNow = 800'000'000;  // a date in 2026, on an hour boundary

Bucket bucketAt(double start, double seconds, std::mt19937_64& rng) {
    std::uint64_t in = rng() % (1u << 20) * static_cast<std::uint64_t>(seconds);
    std::uint64_t out = rng() % (1u << 18) * static_cast<std::uint64_t>(seconds);
    double rateIn = static_cast<double>(in) / seconds;
    double rateOut = static_cast<double>(out) / seconds;
    return Bucket{Date{start}, seconds, in, out, rateIn * 0.5, rateIn * 2, rateOut * 0.5, rateOut * 2};
}

// A history as it stands after a year of one sample per second, built tier
// by tier rather than by replaying 31 million samples.
RateHistory fullHistory(std::uint64_t seed) {
    std::mt19937_64 rng(seed);
    RateHistory history(kRetention);
    for (std::size_t k = 0; k < kRawBuckets; ++k) {
        history.tiers[0].buckets.push_back(bucketAt(kNow - 3599 + static_cast<double>(k), 1, rng));
    }
    for (std::size_t k = 0; k < kMinuteBuckets; ++k) {
        history.tiers[1].buckets.push_back(bucketAt(kNow - 60.0 * static_cast<double>(kMinuteBuckets - k), 60, rng));
    }
    for (std::size_t k = 0; k < kHourBuckets; ++k) {
        history.tiers[2].buckets.push_back(bucketAt(kNow - 3600.0 * static_cast<double>(kHourBuckets - k), 3600, rng));
    }
    return history;
}

HistorySet fullSet() {
    HistorySet set;
    for (std::size_t i = 0; i < kInterfaces; ++i) set.emplace("veth" + std::to_string(i), fullHistory(i + 1));
    return set;
}

std::size_t payloadBytes(const HistorySet& set) {
    std::size_t buckets = 0;
    for (const auto& [name, history] : set) {
        for (const Tier& tier : history.tiers) buckets += tier.buckets.size();
    }
    return buckets * kPackedBucketSize;
}

std::string scratchPath(const char* name) {
    static const std::string dir = [] {
        char pattern[] = "/tmp/netvane-history-bench-XXXXXX";
        return std::string(mkdtemp(pattern));
    }();
    return dir + "/" + name;
}

void BM_Add(benchmark::State& state) {
    RateHistory history = fullHistory(1);
    std::mt19937_64 rng(2);
    double t = kNow;
    std::size_t sinceLastPrune = 0;
    for (auto _ : state) {
        t += 1;
        history.add(RateSample{Date{t}, 1, rng() & 0xFFFFF, rng() & 0x3FFFF});
        // The application prunes on its own cadence; keep the raw tier from
        // growing without bound, outside the measurement.
        if (++sinceLastPrune == (1u << 16)) {
            state.PauseTiming();
            history.prune(Date{t});
            sinceLastPrune = 0;
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Add);

// Once a second: one new sample ages one raw bucket out (and every minute a
// minute bucket, every hour an hour bucket). Samples are added in batches
// outside the measurement, then the batch's prunes run back to back.
void BM_PruneEverySecond(benchmark::State& state) {
    constexpr int kBatch = 4096;
    RateHistory history = fullHistory(1);
    double now = kNow;
    for (auto _ : state) {
        state.PauseTiming();
        for (int i = 1; i <= kBatch; ++i) history.add(RateSample{Date{now + i}, 1, 1000, 100});
        state.ResumeTiming();
        for (int i = 0; i < kBatch; ++i) {
            now += 1;
            history.prune(Date{now});
        }
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_PruneEverySecond);

// After a day without pruning (the application was asleep): a whole raw tier,
// a day of minutes and a day of hours go at once.
void BM_PruneAfterADay(benchmark::State& state) {
    const RateHistory full = fullHistory(1);
    for (auto _ : state) {
        state.PauseTiming();
        RateHistory history = full;
        state.ResumeTiming();
        history.prune(Date{kNow + 86400});
        benchmark::DoNotOptimize(history.tiers[0].buckets.size());
    }
}
BENCHMARK(BM_PruneAfterADay);

void BM_Aggregate(benchmark::State& state) {
    const RateHistory history = fullHistory(1);
    const double period = static_cast<double>(state.range(0));
    for (auto _ : state) {
        RateAggregate aggregate = history.aggregate(period, Date{kNow});
        benchmark::DoNotOptimize(aggregate.bytesIn);
    }
}
BENCHMARK(BM_Aggregate)->Arg(3600)->Arg(86400)->Arg(7 * 86400)->Arg(365 * 86400)->Unit(benchmark::kMicrosecond);

const HistorySet& sharedSet() {
    static const HistorySet set = fullSet();
    return set;
}

void BM_Save(benchmark::State& state) {
    const HistorySet& set = sharedSet();
    HistoryStore store(scratchPath("save.plist"));
    for (auto _ : state) {
        if (!store.save(set).ok()) state.SkipWithError("save failed");
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * payloadBytes(set)));
}
BENCHMARK(BM_Save)->Unit(benchmark::kMillisecond)->UseRealTime();

// Save without the durability step, to compare with plistlib's dump.
void BM_SaveWithoutFsync(benchmark::State& state) {
    const HistorySet& set = sharedSet();
    const std::string path = scratchPath("save-nofsync.plist");
    for (auto _ : state) {
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        const Status written = HistoryStore::write(set, [&](std::span<const std::uint8_t> bytes) -> Status {
            if (::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
                return Error{"bench", 1, "short write"};
            }
            return {};
        });
        if (fd < 0 || !written.ok()) state.SkipWithError("write failed");
        ::close(fd);
    }
}
BENCHMARK(BM_SaveWithoutFsync)->Unit(benchmark::kMillisecond)->UseRealTime();

// The packing that a save adds to writing the file: every bucket through one
// reused chunk, as the save does it.
void BM_PackBuckets(benchmark::State& state) {
    const HistorySet& set = sharedSet();
    std::vector<std::uint8_t> chunk(plist::kDeferredChunkBytes);
    for (auto _ : state) {
        for (const auto& [name, history] : set) {
            for (const Tier& tier : history.tiers) {
                const std::size_t size = tier.buckets.size() * kPackedBucketSize;
                for (std::size_t offset = 0; offset < size; offset += chunk.size()) {
                    packBuckets(tier.buckets, offset, std::span(chunk.data(), std::min(chunk.size(), size - offset)));
                    benchmark::DoNotOptimize(chunk.data());
                }
            }
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * payloadBytes(set)));
}
BENCHMARK(BM_PackBuckets)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Load(benchmark::State& state) {
    HistoryStore store(scratchPath("load.plist"));
    if (!store.save(sharedSet()).ok()) return state.SkipWithError("save failed");
    for (auto _ : state) {
        HistorySet loaded = store.load();
        if (loaded.size() != kInterfaces) state.SkipWithError("load lost histories");
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * payloadBytes(sharedSet())));
}
BENCHMARK(BM_Load)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_EncodeInMemory(benchmark::State& state) {
    const HistorySet& set = sharedSet();
    for (auto _ : state) {
        auto bytes = plist::encodeBinary(HistoryStore::encode(set));
        benchmark::DoNotOptimize(bytes->data());
    }
}
BENCHMARK(BM_EncodeInMemory)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_DecodeInMemory(benchmark::State& state) {
    const plist::Data bytes = *plist::encodeBinary(HistoryStore::encode(sharedSet()));
    for (auto _ : state) {
        auto document = plist::decode(bytes);
        auto set = HistoryStore::decode(*document);
        benchmark::DoNotOptimize(set->size());
    }
}
BENCHMARK(BM_DecodeInMemory)->Unit(benchmark::kMillisecond)->UseRealTime();

const plist::Data& documentBytes() {
    static const plist::Data bytes = *plist::encodeBinary(HistoryStore::encode(sharedSet()));
    return bytes;
}

// Floor for save: the document's bytes, already in memory, through
// open/write/close; with fsync:1 through the same atomic replacement (fsync,
// rename, directory fsync) that a save performs.
void BM_PlainWrite(benchmark::State& state) {
    const bool durable = state.range(0) != 0;
    const plist::Data& bytes = documentBytes();
    const std::string path = scratchPath("plain-write.bin");
    for (auto _ : state) {
        if (durable) {
            if (!writeFileAtomically(path, bytes).ok()) state.SkipWithError("write failed");
            continue;
        }
        int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0 || ::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
            state.SkipWithError("write failed");
        }
        ::close(fd);
    }
}
BENCHMARK(BM_PlainWrite)->ArgName("fsync")->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

// Floor for load: the document's bytes read into fresh memory.
void BM_PlainRead(benchmark::State& state) {
    const std::string path = scratchPath("plain-read.bin");
    const std::size_t size = documentBytes().size();
    if (!writeFileAtomically(path, documentBytes()).ok()) return state.SkipWithError("setup");
    for (auto _ : state) {
        std::unique_ptr<std::uint8_t[]> buffer(new std::uint8_t[size]);
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        std::size_t used = 0;
        while (used < size) {
            ssize_t n = ::read(fd, buffer.get() + used, size - used);
            if (n <= 0) break;
            used += static_cast<std::size_t>(n);
        }
        ::close(fd);
        if (used != size) state.SkipWithError("short read");
        benchmark::DoNotOptimize(buffer.get());
    }
}
BENCHMARK(BM_PlainRead)->Unit(benchmark::kMillisecond)->UseRealTime();

std::size_t heapInUse() { return mallinfo2().uordblks + mallinfo2().hblkhd; }

std::size_t residentBytes() {
    long pages = 0, resident = 0;
    if (FILE* statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%ld %ld", &pages, &resident) != 2) resident = 0;
        std::fclose(statm);
    }
    return static_cast<std::size_t>(resident) * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// Heap and resident growth for 50 histories, loaded from a file (what the
// application holds after start) and after two hours of adding and pruning
// on top (the deques' steady state).
int reportMemory() {
    const std::string path = scratchPath("memory.plist");
    {
        HistorySet set = fullSet();
        if (!HistoryStore(path).save(set).ok()) return 1;
    }
    malloc_trim(0);
    const std::size_t heapBefore = heapInUse();
    const std::size_t residentBefore = residentBytes();
    HistorySet set = HistoryStore(path).load();
    auto print = [&](const char* when) {
        malloc_trim(0);
        const std::size_t payload = payloadBytes(set);
        double heap = static_cast<double>(heapInUse() - heapBefore);
        double resident = static_cast<double>(residentBytes() - residentBefore);
        std::printf("%-28s payload %7.2f MB  heap %7.2f MB (%.3fx)  resident %7.2f MB (%.3fx)\n", when,
                    static_cast<double>(payload) / 1e6, heap / 1e6, heap / static_cast<double>(payload),
                    resident / 1e6, resident / static_cast<double>(payload));
    };
    print("after load");
    std::mt19937_64 rng(9);
    for (double t = kNow + 1; t <= kNow + 7200; t += 1) {
        for (auto& [name, history] : set) {
            history.add(RateSample{Date{t}, 1, rng() & 0xFFFFF, rng() & 0x3FFFF});
            history.prune(Date{t});
        }
    }
    print("after 2 h of add and prune");
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--write-document") == 0) {
        return HistoryStore(argv[2]).save(fullSet()).ok() ? 0 : 1;
    }
    if (argc == 2 && std::strcmp(argv[1], "--memory") == 0) return reportMemory();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove_all(std::filesystem::path(scratchPath("x")).parent_path());
    return 0;
}
