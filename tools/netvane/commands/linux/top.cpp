// netvane top: a full-screen view of the interfaces' traffic, redrawn every
// interval. It reads and records exactly as `watch` does (the same counter
// tracking, the same history file and retention), so either continues what
// the other recorded; the terminal work is all here, what it shows is
// decided in views/top_view.
#include <curses.h>
#include <langinfo.h>
#include <unistd.h>

#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "command.h"
#include "history_recording.h"
#include "netcore/history/history_store.h"
#include "netcore/sysconfig/system_configuration_reader.h"
#include "support/date.h"
#include "views/time_axis.h"
#include "views/top_view.h"

namespace netvane::cli {
namespace {

// Faster than this the screen flickers and the readings mostly measure
// themselves.
constexpr double kMinimumInterval = 0.1;

int run(const Arguments& arguments);

const Command command{
    "top",
    "netvane top [--interval SECONDS] [--history FILE]",
    "full-screen live view of each interface's traffic",
    {},
    {intervalOption(kMinimumInterval, "the time between readings and redraws"), kHistoryOption},
    "One row per interface with its current rates, its totals since top started and a sparkline of the last "
    "minute, busiest first, the primary interface marked *. q quits; a resized terminal is drawn again. top "
    "needs a terminal on its input and output and refuses to run without one.\n"
    "It records as watch does, into the same history file, with the same rules: an existing FILE must be a "
    "readable history (anything else is refused and left as it is), and one program records a file at a time. "
    "The history is saved when top starts, every 60 seconds and whenever it ends: on q, Ctrl-C, SIGTERM, SIGHUP "
    "(a closed terminal), SIGQUIT, SIGALRM or SIGUSR1/2; each way gives the terminal back as it was.\n"
    "Exit status 0; 1 without a terminal, when FILE is refused or the history cannot be saved; 2 for a usage "
    "error.",
    run,
};

// The curses screen, given back to the terminal on every way out.
class Terminal {
public:
    static std::unique_ptr<Terminal> open() {
        SCREEN* screen = newterm(nullptr, stdout, stdin);
        if (screen == nullptr) return nullptr;
        std::unique_ptr<Terminal> terminal(new Terminal(screen));
        cbreak();
        noecho();
        keypad(stdscr, TRUE);
        curs_set(0);
        return terminal;
    }
    ~Terminal() {
        endwin();
        delscreen(screen_);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

private:
    explicit Terminal(SCREEN* screen) : screen_(screen) {}
    SCREEN* screen_;
};

std::string localClock(Date now) {
    const long offset = views::localUTCOffset(now);
    return formatISO8601(Date{now.secondsSinceReference + static_cast<double>(offset)}).substr(11, 8);
}

void draw(const std::vector<views::TopRow>& rows, views::TopScreen screen, Date now, const views::SparkGlyphs& glyphs) {
    screen.width = COLS;
    screen.height = LINES;
    const std::vector<std::string> lines = views::topLines(rows, screen, now, glyphs);
    erase();
    for (std::size_t i = 0; i < lines.size(); ++i) {
        // The title, the column heads and the primary interface stand out.
        const bool strong = i == 0 || i == 2 || (i > 2 && lines[i].starts_with("* "));
        if (strong) attron(A_BOLD);
        mvaddstr(static_cast<int>(i), 0, lines[i].c_str());
        if (strong) attroff(A_BOLD);
    }
    refresh();
}

enum class Wait { timeUp, quit };

// Waits for the next reading's time, answering keys meanwhile: q quits, a
// resized terminal is drawn again at once.
Wait waitUntil(double deadline, const std::function<void()>& redraw) {
    for (;;) {
        if (interrupted()) return Wait::quit;
        const double left = deadline - monotonicSeconds();
        // A reading that ran late still gets one look at the keys, so q
        // works on a machine too busy to keep the interval.
        timeout(left > 0 ? static_cast<int>(std::ceil(left * 1000)) : 0);
        const int key = getch();
        if (key == 'q' || key == 'Q') return Wait::quit;
        if (key == KEY_RESIZE) redraw();
        if (left <= 0) return Wait::timeUp;
    }
}

int run(const Arguments& arguments) {
    const double interval = *arguments.seconds("--interval");
    if (::isatty(STDIN_FILENO) == 0 || ::isatty(STDOUT_FILENO) == 0) {
        return failure("top draws on a terminal, and its input or output is not one; "
                       "'netvane watch' prints the same rates as lines");
    }
    auto recording = Recording::open(arguments.text("--history").value_or(""));
    if (!recording) return failure(recording.error().message);
    RateRecorder recorder(recording->takeHistories(), interval);

    std::setlocale(LC_ALL, "");
    const views::SparkGlyphs glyphs = std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0
                                          ? views::SparkGlyphs::blocks()
                                          : views::SparkGlyphs::ascii();
    // Before the terminal is opened: curses takes over the signals it finds
    // at their default, and would end the program without a save.
    stopOnEndingSignals();
    {
        auto terminal = Terminal::open();
        if (!terminal) {
            const char* term = std::getenv("TERM");
            return failure(std::string("cannot draw on this terminal (TERM=") + (term ? term : "unset") + ")");
        }
        // Samples enough to cover the window, with room for jitter.
        const auto recentCount = static_cast<std::int64_t>(std::ceil(views::kTopWindow / interval)) + 2;
        std::map<std::string, std::pair<std::uint64_t, std::uint64_t>> totals;
        ConfigurationChanges configurationChanges("top");
        std::set<std::string> primaries;
        const double start = monotonicSeconds();
        for (std::uint64_t reading = 0; !interrupted(); ++reading) {
            const Date now = Date::now();
            const RateRecorder::Reading taken = recorder.record(now);
            const HistorySet& histories = recorder.histories();
            std::vector<views::TopInterface> interfaces;
            auto rate = taken.rates.begin();  // in the snapshots' order
            for (const InterfaceSnapshot& snapshot : taken.snapshots) {
                views::TopInterface interface;
                interface.name = snapshot.name;
                auto& [in, out] = totals[snapshot.name];
                if (rate != taken.rates.end() && rate->first == snapshot.name) {
                    interface.current = rate->second;
                    in = checkedByteSum(in, rate->second.bytesIn);
                    out = checkedByteSum(out, rate->second.bytesOut);
                    ++rate;
                }
                interface.totalIn = in;
                interface.totalOut = out;
                if (auto found = histories.find(snapshot.name); found != histories.end() && !found->second.tiers.empty()) {
                    interface.recent = found->second.recentSamples(recentCount);
                }
                interfaces.push_back(std::move(interface));
            }
            if (configurationChanges.take()) {
                const NetworkMetadata configuration = SystemConfigurationReader::readServicesAndPrimaries();
                primaries.clear();
                if (configuration.primaryIPv4Interface) primaries.insert(*configuration.primaryIPv4Interface);
                if (configuration.primaryIPv6Interface) primaries.insert(*configuration.primaryIPv6Interface);
            }
            const std::vector<views::TopRow> rows = views::topRows(interfaces, primaries, now);
            views::TopScreen screen;
            screen.clock = localClock(now);
            screen.interval = interval;
            screen.firstReading = taken.rates.empty();
            auto redraw = [&] { draw(rows, screen, now, glyphs); };
            redraw();
            // A failed save is tried again at the next; only the last one counts.
            (void)recording->saveIfDue(now, histories);
            if (waitUntil(start + interval * static_cast<double>(reading + 1), redraw) == Wait::quit) break;
        }
    }
    if (Status saved = recording->save(recorder.histories()); !saved) {
        return failure("cannot save the history to " + recording->file() + ": " + saved.error().message);
    }
    return kExitOK;
}

}  // namespace
}  // namespace netvane::cli
