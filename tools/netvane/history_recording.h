// What the live commands (watch, top) share about recording rate histories:
// where the file lives by default and how long each tier keeps its buckets,
// so that one command continues what the other recorded.
#pragma once

#include <optional>
#include <string>

#include "netcore/history/history_store.h"

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

}  // namespace netvane::cli
