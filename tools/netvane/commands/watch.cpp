// netvane watch: the live view a menu bar shows. Readings at a fixed interval
// become per-interface rates; every sample also goes into that interface's
// rate history, which is pruned and saved so a restart continues it. The
// network configuration that names the interfaces (services, primaries) is
// read again whenever the change watcher says it changed.
#include <time.h>

#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "command.h"
#include "configuration_report.h"
#include "history_recording.h"
#include "netcore/history/history_store.h"
#include "netcore/sysconfig/system_configuration_reader.h"
#include "support/date.h"
#include "support/json.h"

namespace netvane::cli {
namespace {

constexpr double kDefaultInterval = 1;
// Below this, readings would mostly measure the reading itself.
constexpr double kMinimumInterval = 0.05;

struct WatchOptions {
    double interval = kDefaultInterval;
    std::optional<std::uint64_t> count;
    std::string historyFile;
    bool json = false;
};

int run(const Args& args);

const Command command("watch", "netvane watch [--interval SECONDS] [--count N] [--history FILE] [--json]",
                      "live per-interface rates, recorded into the rate history (Ctrl-C stops)", run);

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
            auto value = text ? parsePositiveCount(*text) : std::nullopt;
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
    return chooseHistoryFile(options.historyFile);
}

// The service an interface runs, for people: " (Office)", or nothing.
std::string serviceSuffix(const NetworkMetadata& configuration, const std::string& name) {
    const auto service = configuration.service(name);
    return service ? " (" + service->name + ")" : "";
}

// `configuration` is shown in full only when it was just read again.
void printReading(const WatchOptions& options, Date now, const std::vector<std::pair<std::string, RateSample>>& rates,
                  std::size_t interfaces, const NetworkMetadata& configuration, bool configurationRead) {
    if (options.json) {
        JsonWriter out(false);
        out.beginObject();
        out.key("time");
        out.value(plist::Value(now));
        out.key("interfaces");
        out.beginArray();
        for (const auto& [name, s] : rates) {
            out.beginObject();
            out.key("name");
            out.string(name);
            if (const auto service = configuration.service(name)) {
                out.key("service");
                out.string(service->name);
            }
            out.key("duration");
            out.number(s.duration);
            out.key("bytesIn");
            out.number(s.bytesIn);
            out.key("bytesOut");
            out.number(s.bytesOut);
            out.key("rateIn");
            out.number(s.rateIn());
            out.key("rateOut");
            out.number(s.rateOut());
            out.endObject();
        }
        out.endArray();
        if (configurationRead) {
            out.key("configuration");
            out.beginObject();
            writeServicesAndPrimaries(out, configuration);
            out.endObject();
        }
        out.endObject();
        std::printf("%s\n", out.take().c_str());
    } else {
        std::printf("%s  %zu interfaces\n", formatISO8601(now).c_str(), interfaces);
        if (configurationRead) {
            std::printf("  configuration: %zu services; ", configuration.services.size());
            printPrimaries(stdout, configuration);
        }
        if (rates.empty()) std::printf("  (first reading; rates follow)\n");
        for (const auto& [name, s] : rates) {
            const std::string label = name + serviceSuffix(configuration, name);
            std::printf("  %-28s in %12.1f B/s  out %12.1f B/s\n", label.c_str(), s.rateIn(), s.rateOut());
        }
    }
    std::fflush(stdout);
}

bool save(const HistoryStore& store, const HistorySet& histories) {
    Status saved = store.save(histories);
    if (!saved) std::fprintf(stderr, "netvane: cannot save the history to %s: %s\n", store.url.c_str(), saved.error().message.c_str());
    return saved.ok();
}

// Relative sleeps towards an absolute point, so that drift does not add up
// over a long watch; an interrupting signal cuts a sleep short and the loop
// looks at the flag again.
void sleepUntil(double deadline) {
    while (!interrupted()) {
        const double left = deadline - monotonicSeconds();
        if (left <= 0) return;
        const double whole = std::floor(left);
        const timespec pause{static_cast<time_t>(whole), static_cast<long>((left - whole) * 1e9)};
        ::nanosleep(&pause, nullptr);
    }
}

int run(const Args& args) {
    WatchOptions options;
    if (auto problem = parse(args, options)) return usageError(command, *problem);

    const HistoryStore store(options.historyFile);
    stopOnInterrupt();

    RateRecorder recorder(loadRecording(store), options.interval);
    ConfigurationChanges configurationChanges("watch");
    NetworkMetadata configuration;
    const double start = monotonicSeconds();
    double lastSave = Date::now().secondsSinceReference;
    bool saved = true;
    for (std::uint64_t reading = 0; !interrupted() && (!options.count || reading < *options.count); ++reading) {
        if (reading > 0) sleepUntil(start + options.interval * static_cast<double>(reading));
        if (interrupted()) break;
        const Date now = Date::now();
        const RateRecorder::Reading taken = recorder.record(now);
        const bool configurationRead = configurationChanges.take();
        if (configurationRead) configuration = SystemConfigurationReader::readServicesAndPrimaries();
        printReading(options, now, taken.rates, taken.snapshots.size(), configuration, configurationRead);
        if (now.secondsSinceReference - lastSave >= kRecordingSaveEvery) {
            saved = save(store, recorder.histories());
            lastSave = now.secondsSinceReference;
        }
    }
    saved = save(store, recorder.histories());
    return saved ? kExitOK : kExitFailure;
}

}  // namespace
}  // namespace netvane::cli
