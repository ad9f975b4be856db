// What the live commands (watch, top) share about recording rate histories:
// where the file lives by default, how long each tier keeps its buckets, how
// a reading becomes samples, and when the configuration is read again, so
// that one command continues what the other recorded.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "command.h"
#include "netcore/history/history_store.h"
#include "netcore/interfaces/counter_delta_tracker.h"
#include "netcore/interfaces/interface_reader.h"
#include "netcore/sysconfig/network_change_watcher.h"
#include "support/date.h"
#include "support/file_lock.h"
#include "support/serial_queue.h"

namespace netvane::cli {

// How long each tier keeps its buckets: an hour of raw samples, a week of
// minutes, ninety days of hours.
inline constexpr RateHistory::Retention kRecordingRetention{3600, 7 * 86400, 90 * 86400};
// The history goes to disk when recording starts, this often, and once more
// on the way out.
inline constexpr double kRecordingSaveEvery = 60;
// The largest history file any command reads. A recording at the shortest
// interval keeps about 5.4 MB per interface, so this holds some two hundred
// of them; a larger file is refused before a byte of it is read.
inline constexpr std::size_t kHistoryFileCap = std::size_t{1} << 30;

// The options both live commands take: --interval from `minimum` seconds
// (what each can keep up with) to a day, one second unless asked, and
// --history.
inline constexpr double kDefaultInterval = 1;
inline constexpr double kMaximumInterval = 86400;
constexpr Option intervalOption(double minimum, std::string_view help) {
    return Option::ranged("--interval", ValueKind::seconds, "SECONDS", help, minimum, kMaximumInterval,
                          kDefaultInterval);
}
inline constexpr Option kHistoryOption =
    Option::valued("--history", ValueKind::file, "FILE",
                   "the rate-history file to continue (default $XDG_STATE_HOME/netvane/history.plist, else "
                   "~/.local/state/netvane/history.plist)");

// $XDG_STATE_HOME/netvane/history.plist, else ~/.local/state/netvane/
// history.plist; empty without either.
std::string defaultHistoryFile();

// A history file ("-": standard input), at most kHistoryFileCap bytes.
Result<HistorySet> readHistoryFile(const std::string& file);

// The history file a live command records into, held for it alone until its
// last save, continuing what the file held once the lock was taken (see
// support/file_lock.h).
class Recording {
public:
    // `file`, or the default when empty. Refused, with a message that says
    // what to do: a file that exists and is not a readable history (it is
    // left exactly as it is; only a missing file starts a new history), a
    // link to nothing, a file another program records, and a place where no
    // lock (so no history) can be written.
    static Result<Recording> open(std::string file);

    // What the file held, with the recording's retention; taken once.
    HistorySet takeHistories() { return std::move(loaded_); }
    const std::string& file() const { return store_.url; }

    // Saves at the first call, so that the file is there from the start for
    // readers and for every path to it, then whenever kRecordingSaveEvery
    // has passed. Each save holds everything, so only the last one's
    // failure loses readings.
    Status saveIfDue(Date now, const HistorySet& histories);
    Status save(const HistorySet& histories) { return store_.save(histories); }

private:
    Recording(HistoryStore store, FileLock lock, HistorySet loaded)
        : store_(std::move(store)), lock_(std::move(lock)), loaded_(std::move(loaded)) {}

    HistoryStore store_;
    FileLock lock_;
    HistorySet loaded_;
    std::optional<double> lastSave_;
};

// Reads every interface at each call and records the rates into the
// histories. A reading later than max(2 × interval, interval + 1 s) after the
// previous one says the machine slept or stalled: such a gap is no rate.
class RateRecorder {
public:
    struct Reading {
        std::vector<InterfaceSnapshot> snapshots;               // every interface, in the reader's order
        std::vector<std::pair<std::string, RateSample>> rates;  // those with a rate this time, in that order
    };

    RateRecorder(HistorySet histories, double interval);

    // One reading at `now`: each rate added to its interface's history, the
    // counters of vanished interfaces forgotten, every history pruned.
    Reading record(Date now);
    const HistorySet& histories() const { return histories_; }

private:
    InterfaceReader reader_;
    CounterDeltaTracker tracker_;
    HistorySet histories_;
    double maxGap_;
};

// The change watcher only raises a flag, and the reading loop reads the
// configuration again at its next turn, so a burst of changes costs one
// reading. Raised from the start: the first turn reads it.
class ConfigurationChanges {
public:
    explicit ConfigurationChanges(const std::string& queueName);
    ConfigurationChanges(const ConfigurationChanges&) = delete;
    ConfigurationChanges& operator=(const ConfigurationChanges&) = delete;

    // Whether the configuration changed since the last call.
    bool take() { return changed_.exchange(false); }

private:
    std::atomic<bool> changed_{true};
    NetworkChangeWatcher watcher_;  // after the flag it raises
};

}  // namespace netvane::cli
