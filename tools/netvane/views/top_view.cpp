#include "views/top_view.h"

#include <algorithm>
#include <cstdio>

#include "support/unicode.h"
#include "views/svg_writer.h"
#include "views/units.h"

namespace netvane::views {
namespace {

constexpr int kMinNameWidth = 9;
constexpr int kMaxNameWidth = 16;
constexpr int kValueWidth = 10;
// A sparkline narrower than this says nothing; wider, one column per second.
constexpr int kMinSparkColumns = 8;
constexpr int kMaxSparkColumns = 60;
// Lines above the rows: the title, a blank line, the column heads.
constexpr int kHeaderLines = 3;

double windowRate(const std::vector<RateSample>& samples, Date now) {
    double bytes = 0;
    double seconds = 0;
    for (const RateSample& sample : samples) {
        if (sample.end.secondsSinceReference <= now.secondsSinceReference - kTopWindow) continue;
        bytes += static_cast<double>(sample.bytesIn) + static_cast<double>(sample.bytesOut);
        seconds += sample.duration;
    }
    return seconds > 0 ? bytes / seconds : 0;
}

std::string fit(std::string text, std::size_t width) {
    if (text.size() > width) text = repairUtf8(std::string_view(text).substr(0, width));
    return text;
}

std::string padded(const std::string& text, int width, bool right) {
    char line[128];
    std::snprintf(line, sizeof line, right ? "%*s" : "%-*s", width, text.c_str());
    return line;
}

}  // namespace

std::vector<TopRow> topRows(const std::vector<TopInterface>& interfaces, const std::set<std::string>& primaries,
                            Date now) {
    std::vector<TopRow> rows;
    for (const TopInterface& interface : interfaces) {
        TopRow row;
        row.name = interface.name;
        row.primary = primaries.contains(interface.name);
        if (interface.current) {
            row.rateIn = interface.current->rateIn();
            row.rateOut = interface.current->rateOut();
        }
        row.totalIn = interface.totalIn;
        row.totalOut = interface.totalOut;
        row.windowRate = windowRate(interface.recent, now);
        row.recent = interface.recent;
        rows.push_back(std::move(row));
    }
    std::sort(rows.begin(), rows.end(), [](const TopRow& a, const TopRow& b) {
        if (a.windowRate != b.windowRate) return a.windowRate > b.windowRate;
        if (a.rateIn + a.rateOut != b.rateIn + b.rateOut) return a.rateIn + a.rateOut > b.rateIn + b.rateOut;
        return a.name < b.name;
    });
    return rows;
}

std::vector<std::string> topLines(const std::vector<TopRow>& rows, const TopScreen& screen, Date now,
                                  const SparkGlyphs& glyphs) {
    std::vector<std::string> lines;
    if (screen.width <= 0 || screen.height <= 0) return lines;
    const auto width = static_cast<std::size_t>(screen.width);

    // Names come from the kernel, where any user who may add an interface
    // chose them: shown with their control characters escaped.
    std::vector<std::string> names;
    for (const TopRow& row : rows) names.push_back(terminalText(row.name));
    int nameWidth = kMinNameWidth;
    for (const std::string& name : names) nameWidth = std::max(nameWidth, static_cast<int>(name.size()));
    nameWidth = std::min(nameWidth, kMaxNameWidth);
    // The marker, the name, four values each after two spaces, and two
    // spaces before the sparkline.
    const int fixed = 2 + nameWidth + 4 * (kValueWidth + 2) + 2;
    const int sparkColumns = std::min(kMaxSparkColumns, screen.width - fixed);
    const bool spark = sparkColumns >= kMinSparkColumns;

    std::string title = "netvane top   every " + SvgWriter::number(screen.interval) + " s   " + screen.clock +
                        "   * primary   q quits";
    if (screen.firstReading) title += "   (first reading; rates follow)";
    lines.push_back(fit(title, width));
    lines.emplace_back();
    std::string heads = "  " + padded("INTERFACE", nameWidth, false) + "  " + padded("IN", kValueWidth, true) + "  " +
                        padded("OUT", kValueWidth, true) + "  " + padded("TOTAL IN", kValueWidth, true) + "  " +
                        padded("TOTAL OUT", kValueWidth, true);
    if (spark) heads += "  LAST MINUTE";
    lines.push_back(fit(heads, width));

    const auto room = static_cast<std::size_t>(std::max(0, screen.height - kHeaderLines));
    // With too many rows, the last line that fits says how many are hidden.
    const std::size_t shown = rows.size() <= room ? rows.size() : (room == 0 ? 0 : room - 1);
    for (std::size_t i = 0; i < shown; ++i) {
        const TopRow& row = rows[i];
        std::string line = std::string(row.primary ? "* " : "  ") +
                           padded(fit(names[i], static_cast<std::size_t>(nameWidth)), nameWidth, false) + "  " +
                           padded(formatRate(row.rateIn), kValueWidth, true) + "  " +
                           padded(formatRate(row.rateOut), kValueWidth, true) + "  " +
                           padded(formatBytes(row.totalIn), kValueWidth, true) + "  " +
                           padded(formatBytes(row.totalOut), kValueWidth, true);
        line = fit(line, width);
        if (spark) {
            line += "  " + sparkline(binRates(row.recent, now, kTopWindow, static_cast<std::size_t>(sparkColumns)), glyphs);
        }
        lines.push_back(std::move(line));
    }
    if (shown < rows.size() && room > 0) lines.push_back(fit("  ... " + std::to_string(rows.size() - shown) + " more", width));
    if (lines.size() > static_cast<std::size_t>(screen.height)) lines.resize(static_cast<std::size_t>(screen.height));
    return lines;
}

}  // namespace netvane::views
