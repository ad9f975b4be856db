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
#include "io.h"
#include "netcore/history/history_store.h"
#include "netcore/sysconfig/system_configuration_reader.h"
#include "support/date.h"
#include "support/json.h"
#include "support/unicode.h"

namespace netvane::cli {
namespace {

// Below this, readings would mostly measure the reading itself.
constexpr double kMinimumInterval = 0.05;
constexpr double kMaximumCount = 1e9;

int run(const Arguments& arguments);

const Command command{
    "watch",
    "netvane watch [--interval SECONDS] [--count N] [--history FILE] [--json]",
    "live per-interface rates, recorded into the rate history",
    {},
    {intervalOption(kMinimumInterval, "the time between readings"),
     Option::ranged("--count", ValueKind::count, "N", "stop after N readings; without it, watch runs until it is stopped",
                    1, kMaximumCount),
     kHistoryOption, Option::flag("--json", "each reading as one line of JSON")},
    "A reading every interval: the rates of each interface since the previous reading, with the service it "
    "runs, and the network configuration whenever it changed. Each rate also goes into that interface's "
    "history in FILE, saved when watch starts, every 60 seconds and whenever it ends: after N readings, on "
    "Ctrl-C, SIGTERM, SIGHUP (a closed terminal), SIGQUIT, SIGALRM or SIGUSR1/2, or when the reader of its "
    "output goes away (then quietly).\n"
    "A FILE that exists must be a readable history, which watch continues; anything else there is refused and "
    "left as it is. A missing FILE starts a new history. One program records a history file at a time: while "
    "one holds FILE.lock, another is refused. A link is followed, and the file it names keeps its mode and "
    "owner.\n"
    "Exit status 0; 1 when FILE is refused, the history cannot be saved or the output fails; 2 for a usage "
    "error.",
    run,
};

// The service an interface runs, for people: " (Office)", or nothing.
std::string serviceSuffix(const NetworkMetadata& configuration, const std::string& name) {
    const auto service = configuration.service(name);
    return service ? " (" + terminalText(service->name) + ")" : "";
}

// `configuration` is shown in full only when it was just read again.
void printReading(bool json, Date now, const std::vector<std::pair<std::string, RateSample>>& rates,
                  std::size_t interfaces, const NetworkMetadata& configuration, bool configurationRead) {
    if (json) {
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
        print(out.take() + "\n");
    } else {
        printFormatted("%s  %zu interfaces\n", formatISO8601(now).c_str(), interfaces);
        if (configurationRead) {
            printFormatted("  configuration: %zu services; ", configuration.services.size());
            printPrimaries(configuration);
        }
        if (rates.empty()) print("  (first reading; rates follow)\n");
        for (const auto& [name, s] : rates) {
            const std::string label = terminalText(name) + serviceSuffix(configuration, name);
            printFormatted("  %-28s in %12.1f B/s  out %12.1f B/s\n", label.c_str(), s.rateIn(), s.rateOut());
        }
    }
    flushOutput();
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

int run(const Arguments& arguments) {
    const double interval = *arguments.seconds("--interval");
    const std::optional<std::uint64_t> count = arguments.count("--count");
    const bool json = arguments.flag("--json");
    auto recording = Recording::open(arguments.text("--history").value_or(""));
    if (!recording) return failure(recording.error().message);
    stopOnEndingSignals();

    RateRecorder recorder(recording->takeHistories(), interval);
    ConfigurationChanges configurationChanges("watch");
    NetworkMetadata configuration;
    const double start = monotonicSeconds();
    for (std::uint64_t reading = 0; !interrupted() && outputOpen() && (!count || reading < *count); ++reading) {
        if (reading > 0) sleepUntil(start + interval * static_cast<double>(reading));
        if (interrupted()) break;
        const Date now = Date::now();
        const RateRecorder::Reading taken = recorder.record(now);
        const bool configurationRead = configurationChanges.take();
        if (configurationRead) configuration = SystemConfigurationReader::readServicesAndPrimaries();
        printReading(json, now, taken.rates, taken.snapshots.size(), configuration, configurationRead);
        if (Status saved = recording->saveIfDue(now, recorder.histories()); !saved) {
            note("cannot save the history to " + recording->file() + " (watch tries again): " + saved.error().message);
        }
    }
    if (Status saved = recording->save(recorder.histories()); !saved) {
        return failure("cannot save the history to " + recording->file() + ": " + saved.error().message);
    }
    return kExitOK;
}

}  // namespace
}  // namespace netvane::cli
