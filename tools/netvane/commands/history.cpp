// netvane history show: what a rate-history file says about each interface
// over the period ending now, read the way the application reads it (an
// unreadable file is an empty history, with a note saying why).
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "command.h"
#include "netcore/history/history_store.h"
#include "support/date.h"
#include "support/json.h"

namespace netvane::cli {
namespace {

constexpr double kDefaultPeriod = 3600;

struct ShowOptions {
    std::string file;
    double period = kDefaultPeriod;
    bool json = false;
};

int run(const Args& args);

const Command command("history", "netvane history show FILE [--period SECONDS] [--json]",
                      "traffic per interface in a rate-history file over the last SECONDS (default 3600)", run);

// Fills options or returns the usage problem.
std::optional<std::string> parse(const Args& args, ShowOptions& options) {
    if (args.empty() || args[0] != "show") return "expected the subcommand 'show'";
    bool haveFile = false;
    for (std::size_t i = 1; i < args.size(); ++i) {
        std::string_view arg = args[i];
        if (arg == "--json") {
            options.json = true;
        } else if (arg == "--period") {
            if (++i == args.size()) return "--period needs a number of seconds";
            auto period = parsePositiveSeconds(args[i]);
            if (!period) return "--period must be a positive number of seconds, not '" + std::string(args[i]) + "'";
            options.period = *period;
        } else if (arg.starts_with("-") && arg != "-") {
            return "unknown option '" + std::string(arg) + "'";
        } else if (haveFile) {
            return "only one FILE may be given";
        } else {
            options.file = std::string(arg);
            haveFile = true;
        }
    }
    if (!haveFile) return "missing FILE";
    return std::nullopt;
}

// Non-finite values print as "-": an empty aggregate has no minimum rate.
std::string number(double value, const char* format = "%.1f") {
    if (!std::isfinite(value)) return "-";
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string tierName(const Tier& tier) {
    return tier.isRaw() ? std::string("raw") : number(tier.granularity, "%g") + " s";
}

plist::Value jsonReport(const ShowOptions& options, Date now, const HistorySet& histories) {
    plist::Dictionary interfaces;
    for (const auto& [name, history] : histories) {
        RateAggregate a = history.aggregate(options.period, now);
        plist::Array tiers;
        for (const Tier& tier : history.tiers) {
            tiers.push_back(plist::Dictionary{{"granularity", tier.granularity},
                                              {"retention", tier.retention},
                                              {"buckets", static_cast<std::uint64_t>(tier.buckets.size())}});
        }
        interfaces.append(name, plist::Dictionary{{"seconds", a.seconds},
                                                  {"bytesIn", a.bytesIn},
                                                  {"bytesOut", a.bytesOut},
                                                  {"averageIn", a.averageIn()},
                                                  {"averageOut", a.averageOut()},
                                                  {"minIn", a.minIn},
                                                  {"maxIn", a.maxIn},
                                                  {"minOut", a.minOut},
                                                  {"maxOut", a.maxOut},
                                                  {"tiers", std::move(tiers)}});
    }
    return plist::Dictionary{{"file", options.file},
                             {"now", now},
                             {"period", options.period},
                             {"interfaces", std::move(interfaces)}};
}

void printText(const ShowOptions& options, Date now, const HistorySet& histories) {
    std::printf("%s: %s s up to %s\n", options.file.c_str(), number(options.period, "%g").c_str(),
                formatISO8601(now).c_str());
    if (histories.empty()) std::printf("no interface histories\n");
    for (const auto& [name, history] : histories) {
        RateAggregate a = history.aggregate(options.period, now);
        std::printf("%s\n", name.c_str());
        std::printf("  covered   %s s\n", number(a.seconds).c_str());
        std::printf("  bytes     in %llu  out %llu\n", static_cast<unsigned long long>(a.bytesIn),
                    static_cast<unsigned long long>(a.bytesOut));
        std::printf("  rate in   average %s  min %s  max %s B/s\n", number(a.averageIn()).c_str(),
                    number(a.minIn).c_str(), number(a.maxIn).c_str());
        std::printf("  rate out  average %s  min %s  max %s B/s\n", number(a.averageOut()).c_str(),
                    number(a.minOut).c_str(), number(a.maxOut).c_str());
        std::string tiers;
        for (const Tier& tier : history.tiers) {
            if (!tiers.empty()) tiers += ", ";
            tiers += tierName(tier) + " " + std::to_string(tier.buckets.size()) + " (keeps " +
                     number(tier.retention, "%g") + " s)";
        }
        std::printf("  buckets   %s\n", tiers.empty() ? "no tiers" : tiers.c_str());
    }
}

int run(const Args& args) {
    ShowOptions options;
    if (auto problem = parse(args, options)) return usageError(command, *problem);

    auto loaded = HistoryStore(options.file).loadReportingErrors();
    HistorySet histories;
    if (loaded) {
        histories = std::move(*loaded);
    } else {
        std::fprintf(stderr, "netvane: note: %s is unreadable, so its history is empty: %s\n", options.file.c_str(),
                     loaded.error().message.c_str());
    }
    const Date now = Date::now();
    if (options.json) {
        std::printf("%s\n", toJSON(jsonReport(options, now, histories)).c_str());
    } else {
        printText(options, now, histories);
    }
    return kExitOK;
}

}  // namespace
}  // namespace netvane::cli
