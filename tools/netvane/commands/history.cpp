// netvane history show: what a rate-history file says about each interface
// over the period ending now, read the way the application reads it (an
// unreadable file is an empty history, with a note saying why).
// netvane history chart: the same histories drawn as an SVG document.
// Both count only what was measured before the period's end.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>

#include "command.h"
#include "history_recording.h"
#include "io.h"
#include "netcore/history/history_store.h"
#include "support/date.h"
#include "support/json.h"
#include "support/unicode.h"
#include "views/chart_series.h"
#include "views/history_chart.h"

namespace netvane::cli {
namespace {

constexpr double kDefaultPeriod = 3600;
// A chart of an hour shows little; a day is what people look back on.
constexpr double kDefaultChartPeriod = 86400;
// Far beyond any history's retention, and within what a calendar labels.
constexpr double kLongestPeriod = 100 * 365.25 * 86400;
// --now: from the Unix epoch to the last second a four-digit year prints.
constexpr double kEarliestNow = -978307200;     // 1970-01-01T00:00:00Z
constexpr double kLatestNow = 252423993599;     // 9999-12-31T23:59:59Z

constexpr Operand kFileOperand{"FILE", ValueKind::inputFile, "a rate-history file"};

constexpr Option periodOption(double fallback) {
    return Option::ranged("--period", ValueKind::seconds, "SECONDS", "how far back from the period's end to look", 1,
                          kLongestPeriod, fallback);
}

constexpr Option kNowOption = Option::ranged(
    "--now", ValueKind::time, "TIME",
    "the period's end instead of now, in ISO 8601 UTC: 2026-11-23T14:00:00Z, or shorter (2026-11-23Z)", kEarliestNow,
    kLatestNow);

constexpr std::string_view kReading =
    "A missing or unreadable FILE reads as an empty history, with a note on standard error. Only what was "
    "measured before the period's end counts; a slot of a coarser tier that spans the end counts whole.";

int show(const Arguments& arguments);
int chart(const Arguments& arguments);

const Command showCommand{
    "history show",
    "netvane history show FILE [--period SECONDS] [--now TIME] [--json]",
    "traffic per interface in a rate-history file",
    {kFileOperand},
    {periodOption(kDefaultPeriod), kNowOption, kJsonOption},
    "For each interface in FILE: the seconds covered over the period, bytes in and out, the average, least "
    "and greatest rates each way, and how many buckets each tier holds.\n" +
        std::string(kReading) +
        "\nExit status 0, also for an unreadable FILE; 1 when the output fails; 2 for a usage error.",
    show,
};

const Command chartCommand{
    "history chart",
    "netvane history chart FILE -o OUT.svg [--period SECONDS]\n"
    "    [--interface NAME] [--now TIME]",
    "the traffic in a rate-history file as an SVG chart",
    {kFileOperand},
    {periodOption(kDefaultChartPeriod),
     Option::valued("--interface", ValueKind::text, "NAME", "only this interface's panel"),
     kNowOption,
     Option::valued("-o", ValueKind::outputFile, "OUT.svg", "where the chart goes (required)")},
    "One panel per interface with bytes in and out per second over the period, against local time, from the "
    "finest tier the history holds for each stretch, counted as history show counts them. The same FILE, "
    "--now and time zone give the same bytes.\n" +
        std::string(kReading) +
        "\nOUT.svg is replaced whole or not at all, keeping its mode and owner; a link is followed; a named "
        "pipe or a device such as /dev/null is written into; a directory is refused.\n"
        "Exit status 0; 1 when the chart cannot be written or --interface names no interface in FILE; 2 for a "
        "usage error.",
    chart,
};

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

// What each interface's history holds up to `now`, with its tiers as the
// file has them.
struct Shown {
    const RateHistory* stored;
    RateAggregate aggregate;
};

std::vector<std::pair<std::string, Shown>> aggregates(HistorySet& histories, double period, Date now) {
    std::vector<std::pair<std::string, Shown>> shown;
    for (auto& [name, history] : histories) {
        RateHistory before = history;
        views::keepBefore(before, now);
        shown.emplace_back(name, Shown{&history, before.aggregate(period, now)});
    }
    return shown;
}

plist::Value jsonReport(const std::string& file, double period, Date now, HistorySet& histories) {
    plist::Dictionary interfaces;
    for (const auto& [name, shown] : aggregates(histories, period, now)) {
        const RateAggregate& a = shown.aggregate;
        plist::Array tiers;
        for (const Tier& tier : shown.stored->tiers) {
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
    return plist::Dictionary{{"file", file}, {"now", now}, {"period", period}, {"interfaces", std::move(interfaces)}};
}

void printText(const std::string& file, double period, Date now, HistorySet& histories) {
    printFormatted("%s: %s s up to %s\n", terminalText(inputName(file)).c_str(), number(period, "%g").c_str(),
                   formatISO8601(now).c_str());
    if (histories.empty()) print("no interface histories\n");
    for (const auto& [name, shown] : aggregates(histories, period, now)) {
        const RateAggregate& a = shown.aggregate;
        printFormatted("%s\n", terminalText(name).c_str());
        printFormatted("  covered   %s s\n", number(a.seconds).c_str());
        printFormatted("  bytes     in %llu  out %llu\n", static_cast<unsigned long long>(a.bytesIn),
                       static_cast<unsigned long long>(a.bytesOut));
        printFormatted("  rate in   average %s  min %s  max %s B/s\n", number(a.averageIn()).c_str(),
                       number(a.minIn).c_str(), number(a.maxIn).c_str());
        printFormatted("  rate out  average %s  min %s  max %s B/s\n", number(a.averageOut()).c_str(),
                       number(a.minOut).c_str(), number(a.maxOut).c_str());
        std::string tiers;
        for (const Tier& tier : shown.stored->tiers) {
            if (!tiers.empty()) tiers += ", ";
            tiers += tierName(tier) + " " + std::to_string(tier.buckets.size()) + " (keeps " +
                     number(tier.retention, "%g") + " s)";
        }
        printFormatted("  buckets   %s\n", tiers.empty() ? "no tiers" : tiers.c_str());
    }
}

HistorySet loadForReading(const std::string& file) {
    auto loaded = readHistoryFile(file);
    if (loaded) return std::move(*loaded);
    note(inputName(file) + " is unreadable, so its history is empty: " + loaded.error().message);
    return {};
}

int chart(const Arguments& arguments) {
    const std::optional<std::string> output = arguments.text("-o");
    if (!output) return usageError(chartCommand, "missing -o OUT.svg (- for standard output)");
    const std::string file = arguments.operands()[0];
    const std::optional<std::string> interface = arguments.text("--interface");
    HistorySet histories = loadForReading(file);
    if (interface) {
        auto found = histories.find(*interface);
        if (found == histories.end()) {
            std::string names;
            for (const auto& [name, history] : histories) names += (names.empty() ? "" : ", ") + name;
            return failure("no history of interface '" + *interface + "' in " + inputName(file) +
                           (names.empty() ? "" : " (it holds " + names + ")"));
        }
        HistorySet one;
        one.insert(*found);
        histories = std::move(one);
    }
    views::ChartRequest request;
    request.source = inputName(file);
    request.period = *arguments.seconds("--period");
    request.now = arguments.time("--now").value_or(Date::now());
    for (auto& [name, history] : histories) views::keepBefore(history, request.now);
    const std::string document = views::renderHistoryChart(histories, request);
    if (Status written = writeOutput(*output, document); !written) {
        return failure("cannot write the chart to " + *output + ": " + written.error().message);
    }
    return kExitOK;
}

int show(const Arguments& arguments) {
    const std::string file = arguments.operands()[0];
    const double period = *arguments.seconds("--period");
    HistorySet histories = loadForReading(file);
    const Date now = arguments.time("--now").value_or(Date::now());
    if (arguments.flag("--json")) {
        print(toJSON(jsonReport(inputName(file), period, now, histories)));
    } else {
        printText(file, period, now, histories);
    }
    return kExitOK;
}

}  // namespace
}  // namespace netvane::cli
