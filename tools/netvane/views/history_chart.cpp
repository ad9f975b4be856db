#include "views/history_chart.h"

#include <algorithm>
#include <cmath>

#include "views/chart_series.h"
#include "views/svg_writer.h"
#include "views/units.h"

namespace netvane::views {
namespace {

// Geometry in user units; the document scales to any width through its
// viewBox, so these only set proportions and the text size against them.
constexpr double kWidth = 960;
constexpr double kHeaderHeight = 64;
constexpr double kPlotLeft = 88;
constexpr double kPlotRight = kWidth - 24;
constexpr double kPlotWidth = kPlotRight - kPlotLeft;
constexpr double kPanelTitle = 34;  // from a panel's top to its plot
constexpr double kPlotHeight = 160;
constexpr double kPanelHeight = kPanelTitle + kPlotHeight + 40;
constexpr int kRateTicks = 4;
constexpr int kTimeTicks = 8;
// Steps narrower than this many user units are joined: finer detail would
// not show, and the document would grow with every sample.
constexpr double kStepWidth = 2;

constexpr const char* kStyle =
    "text{font-family:sans-serif;font-size:12px;fill:#333}"
    ".title{font-size:16px;font-weight:bold}.name{font-size:14px;font-weight:bold}"
    ".note{fill:#777;font-style:italic}.plot{fill:#fafafa;stroke:#bbb}.grid{stroke:#e2e2e2}"
    ".in{fill:#2b7bb9;fill-opacity:0.35;stroke:#2b7bb9;stroke-width:1}"
    ".out{fill:none;stroke:#d9651e;stroke-width:1.5}";

using N = SvgWriter;

struct Plot {
    double top = 0;  // of the plot area
    double cutoff = 0;
    double period = 1;
    RateScale scale;

    double x(double time) const {
        return kPlotLeft + std::clamp((time - cutoff) / period, 0.0, 1.0) * kPlotWidth;
    }
    double y(double rate) const { return top + kPlotHeight - std::clamp(rate / scale.top, 0.0, 1.0) * kPlotHeight; }
};

// Step outlines of runs of touching steps: for the in series a closed area
// down to the axis, for the out series an open line.
std::string stepPath(const std::vector<ChartStep>& steps, const Plot& plot, bool in) {
    std::string d;
    const std::string base = N::number(plot.y(0));
    for (std::size_t i = 0; i < steps.size(); ++i) {
        const ChartStep& step = steps[i];
        const double rate = in ? step.rateIn() : step.rateOut();
        const bool joined = i > 0 && std::abs(step.from - steps[i - 1].to) <= kStepJoinTolerance;
        // Appended piece by piece: GCC 12 at -O3 misreads a literal-prefixed
        // concatenation as an overlapping copy (-Wrestrict).
        if (!joined) {
            if (i > 0 && in) d.append("V").append(base).append("Z");
            d.append("M").append(N::number(plot.x(step.from))).append(" ");
            if (in) d.append(base).append("V");
        } else {
            d.append("V");
        }
        d.append(N::number(plot.y(rate))).append("H").append(N::number(plot.x(step.to)));
    }
    if (!steps.empty() && in) d.append("V").append(base).append("Z");
    return d;
}

// The panel's totals, read from the steps it draws so that text and curve
// always agree.
std::string summary(const std::vector<ChartStep>& steps) {
    ChartStep all;
    for (const ChartStep& step : steps) {
        all.seconds += step.seconds;
        all.bytesIn = checkedByteSum(all.bytesIn, step.bytesIn);
        all.bytesOut = checkedByteSum(all.bytesOut, step.bytesOut);
        all.maxIn = std::max(all.maxIn, step.maxIn);
        all.maxOut = std::max(all.maxOut, step.maxOut);
    }
    if (steps.empty()) return "";
    return "in " + formatBytes(all.bytesIn) + " (average " + formatRate(all.rateIn()) + ", peak " +
           formatRate(all.maxIn) + ")   out " + formatBytes(all.bytesOut) + " (average " + formatRate(all.rateOut()) +
           ", peak " + formatRate(all.maxOut) + ")";
}

void drawPanel(SvgWriter& svg, const std::string& name, const RateHistory& history, const ChartRequest& request,
               double panelTop) {
    const double cutoff = request.now.secondsSinceReference - request.period;
    const std::vector<ChartStep> steps =
        mergeSteps(stitchedSteps(history, request.period, request.now), request.period * kStepWidth / kPlotWidth);
    double maxRate = 0;
    for (const ChartStep& step : steps) maxRate = std::max({maxRate, step.rateIn(), step.rateOut()});
    Plot plot{panelTop + kPanelTitle, cutoff, request.period, rateScale(maxRate, kRateTicks)};

    svg.open("g", {{"class", "panel"},
                   {"data-interface", name},
                   {"data-from", N::number(cutoff)},
                   {"data-to", N::number(request.now.secondsSinceReference)},
                   {"data-rate-top", N::number(plot.scale.top)}});
    svg.textElement("text", {{"class", "name"}, {"x", N::number(kPlotLeft)}, {"y", N::number(panelTop + 20)}}, name);
    svg.textElement("text", {{"x", N::number(kPlotRight)}, {"y", N::number(panelTop + 20)}, {"text-anchor", "end"}},
                    summary(steps));
    svg.element("rect", {{"class", "plot"},
                         {"x", N::number(kPlotLeft)},
                         {"y", N::number(plot.top)},
                         {"width", N::number(kPlotWidth)},
                         {"height", N::number(kPlotHeight)}});
    for (double tick : plot.scale.ticks()) {
        const std::string y = N::number(plot.y(tick));
        if (tick > 0) {
            svg.element("line", {{"class", "grid"}, {"x1", N::number(kPlotLeft)}, {"x2", N::number(kPlotRight)},
                                 {"y1", y}, {"y2", y}});
        }
        svg.textElement("text", {{"x", N::number(kPlotLeft - 6)}, {"y", N::number(plot.y(tick) + 4)}, {"text-anchor", "end"}},
                        plot.scale.label(tick));
    }
    const Date from{cutoff};
    for (const TimeTick& tick : timeTicks(from, request.now, kTimeTicks, request.offsetAt)) {
        const std::string x = N::number(plot.x(tick.time.secondsSinceReference));
        svg.element("line", {{"class", "grid"}, {"x1", x}, {"x2", x}, {"y1", N::number(plot.top)},
                             {"y2", N::number(plot.top + kPlotHeight)}});
        svg.textElement("text", {{"x", x}, {"y", N::number(plot.top + kPlotHeight + 16)}, {"text-anchor", "middle"}},
                        tick.label);
    }
    if (!steps.empty()) {
        svg.element("path", {{"class", "in"}, {"d", stepPath(steps, plot, true)}});
        svg.element("path", {{"class", "out"}, {"d", stepPath(steps, plot, false)}});
    }
    const char* note = steps.empty() ? "no traffic recorded in this period"
                       : steps.size() == 1 ? "a single reading in this period: too few for a curve"
                                           : nullptr;
    if (note != nullptr) {
        svg.textElement("text", {{"class", "note"}, {"x", N::number(kPlotLeft + kPlotWidth / 2)},
                                 {"y", N::number(plot.top + kPlotHeight / 2)}, {"text-anchor", "middle"}},
                        note);
    }
    svg.close();
}

std::string periodText(double seconds) {
    struct Unit {
        double seconds;
        const char* name;
    };
    for (const Unit unit : {Unit{86400, "day"}, Unit{3600, "hour"}, Unit{60, "minute"}}) {
        if (seconds >= unit.seconds && std::fmod(seconds, unit.seconds) == 0) {
            const double count = seconds / unit.seconds;
            return N::number(count) + " " + unit.name + (count == 1 ? "" : "s");
        }
    }
    return N::number(seconds) + " seconds";
}

}  // namespace

std::string renderHistoryChart(const HistorySet& histories, const ChartRequest& request) {
    const double panels = static_cast<double>(std::max<std::size_t>(histories.size(), 1));
    const double height = kHeaderHeight + panels * kPanelHeight;
    SvgWriter svg(SvgWriter::Attributes{{"viewBox", "0 0 " + N::number(kWidth) + " " + N::number(height)},
                   {"width", "100%"},
                   {"preserveAspectRatio", "xMidYMin meet"}});
    const std::string title = "Traffic in " + request.source + ": " + periodText(request.period) + " up to " +
                              formatLocalMinute(request.now, request.offsetAt) + " (" +
                              formatUTCOffset(request.offsetAt(request.now)) + ")";
    svg.textElement("title", {}, title);
    svg.textElement("style", {}, kStyle);
    svg.element("rect", {{"width", "100%"}, {"height", "100%"}, {"fill", "#fff"}});
    svg.textElement("text", {{"class", "title"}, {"x", N::number(kPlotLeft)}, {"y", "26"}}, title);
    // Legend: a swatch of each series and what it is.
    svg.element("rect", {{"class", "in"}, {"x", N::number(kPlotLeft)}, {"y", "40"}, {"width", "14"}, {"height", "10"}});
    svg.textElement("text", {{"x", N::number(kPlotLeft + 20)}, {"y", "49"}}, "in (received) per second");
    svg.element("line", {{"class", "out"}, {"x1", N::number(kPlotLeft + 190)}, {"x2", N::number(kPlotLeft + 204)},
                         {"y1", "45"}, {"y2", "45"}});
    svg.textElement("text", {{"x", N::number(kPlotLeft + 210)}, {"y", "49"}}, "out (sent) per second");
    if (histories.empty()) {
        svg.textElement("text", {{"class", "note"}, {"x", N::number(kWidth / 2)},
                                 {"y", N::number(kHeaderHeight + kPanelHeight / 2)}, {"text-anchor", "middle"}},
                        "no interface histories: nothing has been recorded");
    }
    double top = kHeaderHeight;
    for (const auto& [name, history] : histories) {
        drawPanel(svg, name, history, request, top);
        top += kPanelHeight;
    }
    return svg.finish();
}

}  // namespace netvane::views
