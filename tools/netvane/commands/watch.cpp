// netvane watch: the live view a menu bar shows. Readings at a fixed interval
// become per-interface rates; every sample also goes into that interface's
// rate history, which is pruned and saved so a restart continues it.
#include <signal.h>
#include <time.h>

#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <unordered_set>

#include "command.h"
#include "netcore/history/history_store.h"
#include "netcore/interfaces/counter_delta_tracker.h"
#include "netcore/interfaces/interface_reader.h"
#include "support/date.h"
#include "support/json.h"

namespace netvane::cli {
namespace {

constexpr double kDefaultInterval = 1;
// Below this, readings would mostly measure the reading itself.
constexpr double kMinimumInterval = 0.05;
// How long each tier keeps its buckets: an hour of raw samples, a week of
// minutes, ninety days of hours.
constexpr RateHistory::Retention kRetention{3600, 7 * 86400, 90 * 86400};
// The history goes to disk this often, and once more on the way out.
constexpr double kSaveEvery = 60;

volatile sig_atomic_t stopRequested = 0;

extern "C" void requestStop(int) { stopRequested = 1; }

struct WatchOptions {
    double interval = kDefaultInterval;
    std::optional<std::uint64_t> count;
    std::string historyFile;
    bool json = false;
};

int run(const Args& args);

const Command command("watch", "netvane watch [--interval SECONDS] [--count N] [--history FILE] [--json]",
                      "live per-interface rates, recorded into the rate history (Ctrl-C stops)", run);

std::string defaultHistoryFile() {
    if (const char* state = std::getenv("XDG_STATE_HOME"); state != nullptr && state[0] == '/') {
        return std::string(state) + "/netvane/history.plist";
    }
    if (const char* home = std::getenv("HOME"); home != nullptr && home[0] != '\0') {
        return std::string(home) + "/.local/state/netvane/history.plist";
    }
    return "";
}

std::optional<std::uint64_t> parseCount(std::string_view text) {
    std::string copy(text);
    char* end = nullptr;
    errno = 0;
    unsigned long long value = std::strtoull(copy.c_str(), &end, 10);
    if (copy.empty() || copy[0] == '-' || *end != '\0' || errno != 0 || value == 0) return std::nullopt;
    return value;
}

std::optional<std::string> parse(const Args& args, WatchOptions& options) {
    for (std::size_t i = 0; i < args.size(); ++i) {
        std::string_view arg = args[i];
        auto next = [&]() -> std::optional<std::string_view> {
            if (i + 1 == args.size()) return std::nullopt;
            return args[++i];
        };
        if (arg == "--json") {
            options.json = true;
        } else if (arg == "--interval") {
            auto text = next();
            auto value = text ? parsePositiveSeconds(*text) : std::nullopt;
            if (!value || *value < kMinimumInterval) return "--interval needs a number of seconds of at least 0.05";
            options.interval = *value;
        } else if (arg == "--count") {
            auto text = next();
            auto value = text ? parseCount(*text) : std::nullopt;
            if (!value) return "--count needs a positive whole number of readings";
            options.count = *value;
        } else if (arg == "--history") {
            auto text = next();
            if (!text || text->empty()) return "--history needs a file";
            options.historyFile = std::string(*text);
        } else {
            return "unknown argument '" + std::string(arg) + "'";
        }
    }
    if (options.historyFile.empty()) options.historyFile = defaultHistoryFile();
    if (options.historyFile.empty()) return "no HOME to keep the history in; give --history FILE";
    return std::nullopt;
}

void printReading(const WatchOptions& options, Date now, const std::vector<std::pair<std::string, RateSample>>& rates,
                  std::size_t interfaces) {
    if (options.json) {
        plist::Array list;
        for (const auto& [name, s] : rates) {
            list.push_back(plist::Dictionary{{"name", name},
                                             {"duration", s.duration},
                                             {"bytesIn", s.bytesIn},
                                             {"bytesOut", s.bytesOut},
                                             {"rateIn", s.rateIn()},
                                             {"rateOut", s.rateOut()}});
        }
        std::printf("%s\n", toJSON(plist::Dictionary{{"time", now}, {"interfaces", std::move(list)}}, false).c_str());
    } else {
        std::printf("%s  %zu interfaces\n", formatISO8601(now).c_str(), interfaces);
        if (rates.empty()) std::printf("  (first reading; rates follow)\n");
        for (const auto& [name, s] : rates) {
            std::printf("  %-16s in %12.1f B/s  out %12.1f B/s\n", name.c_str(), s.rateIn(), s.rateOut());
        }
    }
    std::fflush(stdout);
}

bool save(const HistoryStore& store, const HistorySet& histories) {
    Status saved = store.save(histories);
    if (!saved) std::fprintf(stderr, "netvane: cannot save the history to %s: %s\n", store.url.c_str(), saved.error().message.c_str());
    return saved.ok();
}

void sleepUntil(const timespec& deadline) {
    while (!stopRequested && ::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

timespec addSeconds(timespec t, double seconds) {
    double whole = std::floor(seconds);
    t.tv_sec += static_cast<time_t>(whole);
    t.tv_nsec += static_cast<long>((seconds - whole) * 1e9);
    if (t.tv_nsec >= 1000000000L) {
        t.tv_sec += 1;
        t.tv_nsec -= 1000000000L;
    }
    return t;
}

int run(const Args& args) {
    WatchOptions options;
    if (auto problem = parse(args, options)) return usageError(command, *problem);

    const HistoryStore store(options.historyFile);
    auto loaded = store.loadReportingErrors();
    HistorySet histories;
    if (loaded) {
        histories = std::move(*loaded);
    } else if (loaded.error().code != ENOENT) {
        std::fprintf(stderr, "netvane: note: starting a new history; %s is unreadable: %s\n", store.url.c_str(),
                     loaded.error().message.c_str());
    }
    for (auto& [name, history] : histories) history.apply(kRetention);

    struct sigaction action {};
    action.sa_handler = requestStop;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);

    // A reading later than this after the previous one says the machine
    // slept or stalled; such a gap is no rate.
    const double maxGap = std::max(2 * options.interval, options.interval + 1);
    InterfaceReader reader;
    CounterDeltaTracker tracker;
    timespec start{};
    ::clock_gettime(CLOCK_MONOTONIC, &start);
    double lastSave = Date::now().secondsSinceReference;
    bool saved = true;
    for (std::uint64_t reading = 0; !stopRequested && (!options.count || reading < *options.count); ++reading) {
        if (reading > 0) sleepUntil(addSeconds(start, options.interval * static_cast<double>(reading)));
        if (stopRequested) break;
        const Date now = Date::now();
        const std::vector<InterfaceSnapshot> snapshots = reader.snapshot();
        std::vector<std::pair<std::string, RateSample>> rates;
        std::unordered_set<std::string> names;
        for (const InterfaceSnapshot& snapshot : snapshots) {
            names.insert(snapshot.name);
            if (auto sample = tracker.update(snapshot.name, snapshot.counters, now, maxGap)) {
                auto [it, fresh] = histories.try_emplace(snapshot.name, kRetention);
                it->second.add(*sample);
                rates.emplace_back(snapshot.name, *sample);
            }
        }
        tracker.retain(names);
        for (auto& [name, history] : histories) history.prune(now);
        printReading(options, now, rates, snapshots.size());
        if (now.secondsSinceReference - lastSave >= kSaveEvery) {
            saved = save(store, histories);
            lastSave = now.secondsSinceReference;
        }
    }
    saved = save(store, histories);
    return saved ? kExitOK : kExitFailure;
}

}  // namespace
}  // namespace netvane::cli
