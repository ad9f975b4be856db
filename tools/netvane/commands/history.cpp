// netvane history show: what a rate-history file says about each interface
// over the period ending now, read the way the application reads it (an
// unreadable file is an empty history, with a note saying why).
// netvane history chart: the same histories drawn as an SVG document.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "command.h"
#include "netcore/history/history_store.h"
#include "support/date.h"
#include "support/files.h"
#include "support/json.h"
#include "views/history_chart.h"

namespace netvane::cli {
namespace {

constexpr double kDefaultPeriod = 3600;
// A chart of an hour shows little; a day is what people look back on.
constexpr double kDefaultChartPeriod = 86400;
// Far beyond any history's retention, and within what a calendar labels.
constexpr double kLongestChartPeriod = 100 * 365.25 * 86400;

// What either subcommand was asked; each takes only its own options.
struct HistoryOptions {
    bool chart = false;
    std::string file;
    double period = kDefaultPeriod;
    std::optional<Date> now;
    bool json = false;                     // show
    std::optional<std::string> interface;  // chart
    std::string output;                    // chart
};

int run(const Args& args);

const Command command("history",
                      "netvane history show FILE [--period SECONDS] [--now TIME] [--json]\n"
                      "netvane history chart FILE [--period SECONDS] [--interface NAME] [--now TIME] -o OUT.svg",
                      "traffic per interface in a rate-history file over the last SECONDS, as text "
                      "(default 3600) or as an SVG chart (default 86400)",
                      run);

// Fills options or returns the usage problem.
std::optional<std::string> parse(const Args& args, HistoryOptions& options) {
    if (args.empty() || (args[0] != "show" && args[0] != "chart")) return "expected the subcommand 'show' or 'chart'";
    options.chart = args[0] == "chart";
    if (options.chart) options.period = kDefaultChartPeriod;
    bool haveFile = false;
    for (std::size_t i = 1; i < args.size(); ++i) {
        std::string_view arg = args[i];
        auto next = [&]() -> std::optional<std::string_view> {
            if (i + 1 == args.size()) return std::nullopt;
            return args[++i];
        };
        if (arg == "--period") {
            auto text = next();
            auto period = text ? parsePositiveSeconds(*text) : std::nullopt;
            if (!period) return "--period needs a positive number of seconds";
            options.period = *period;
        } else if (arg == "--now") {
            auto text = next();
            options.now = text ? parseISO8601(*text) : std::nullopt;
            if (!options.now) return "--now needs a time such as 2026-11-23T14:00:00Z";
        } else if (arg == "--json" && !options.chart) {
            options.json = true;
        } else if (arg == "--interface" && options.chart) {
            auto text = next();
            if (!text || text->empty()) return "--interface needs an interface name";
            options.interface = std::string(*text);
        } else if (arg == "-o" && options.chart) {
            auto text = next();
            if (!text || text->empty()) return "-o needs a file to write the chart to (- for standard output)";
            options.output = std::string(*text);
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
    if (options.chart && options.output.empty()) return "missing -o OUT.svg (- for standard output)";
    if (options.chart && options.period > kLongestChartPeriod) return "a chart's --period is at most 100 years";
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

plist::Value jsonReport(const HistoryOptions& options, Date now, const HistorySet& histories) {
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

void printText(const HistoryOptions& options, Date now, const HistorySet& histories) {
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

HistorySet loadForReading(const std::string& file) {
    auto loaded = HistoryStore(file).loadReportingErrors();
    if (loaded) return std::move(*loaded);
    std::fprintf(stderr, "netvane: note: %s is unreadable, so its history is empty: %s\n", file.c_str(),
                 loaded.error().message.c_str());
    return {};
}

int chart(const HistoryOptions& options) {
    HistorySet histories = loadForReading(options.file);
    if (options.interface) {
        auto found = histories.find(*options.interface);
        if (found == histories.end()) {
            std::string names;
            for (const auto& [name, history] : histories) names += (names.empty() ? "" : ", ") + name;
            return failure("no history of interface '" + *options.interface + "' in " + options.file +
                           (names.empty() ? "" : " (it holds " + names + ")"));
        }
        HistorySet one;
        one.insert(*found);
        histories = std::move(one);
    }
    views::ChartRequest request;
    request.source = options.file;
    request.period = options.period;
    request.now = options.now.value_or(Date::now());
    const std::string document = views::renderHistoryChart(histories, request);
    if (options.output == "-") {
        std::fwrite(document.data(), 1, document.size(), stdout);
        return std::fflush(stdout) == 0 ? kExitOK : failure("cannot write the chart to standard output");
    }
    // Atomically, so an existing chart is either replaced whole or kept.
    Status written = writeFileAtomically(options.output, std::string_view(document), 0644);
    if (!written) return failure("cannot write the chart to " + options.output + ": " + written.error().message);
    return kExitOK;
}

int run(const Args& args) {
    HistoryOptions options;
    if (auto problem = parse(args, options)) return usageError(command, *problem);
    if (options.chart) return chart(options);

    const HistorySet histories = loadForReading(options.file);
    const Date now = options.now.value_or(Date::now());
    if (options.json) {
        std::printf("%s\n", toJSON(jsonReport(options, now, histories)).c_str());
    } else {
        printText(options, now, histories);
    }
    return kExitOK;
}

}  // namespace
}  // namespace netvane::cli
