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

#include "netcore/history/history_store.h"
#include "netcore/interfaces/counter_delta_tracker.h"
#include "netcore/interfaces/interface_reader.h"
#include "netcore/sysconfig/network_change_watcher.h"
#include "support/date.h"
#include "support/serial_queue.h"

namespace netvane::cli {

// How long each tier keeps its buckets: an hour of raw samples, a week of
// minutes, ninety days of hours.
inline constexpr RateHistory::Retention kRecordingRetention{3600, 7 * 86400, 90 * 86400};
// The history goes to disk this often, and once more on the way out.
inline constexpr double kRecordingSaveEvery = 60;

// $XDG_STATE_HOME/netvane/history.plist, else ~/.local/state/netvane/
// history.plist; empty without either.
std::string defaultHistoryFile();
// Fills an unset `file` (no --history) with the default; the usage problem
// when there is none.
std::optional<std::string> chooseHistoryFile(std::string& file);
// The recorded histories to continue, with the recording's retention. An
// unreadable file (but a missing one) gets a note on stderr: the next save
// starts it afresh.
HistorySet loadRecording(const HistoryStore& store);

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
