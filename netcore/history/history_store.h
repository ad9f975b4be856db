// Persists the rate histories of all interfaces between runs: one binary
// property list mapping interface name to history (see rate_history.h for the
// shape of each history). Forgiving on reading, strict on writing.
//
// - `load` never fails: a missing file, or one that is there but cannot be
//   read as a history (unreadable, truncated, foreign, or holding byte totals
//   that cannot be summed), yields an empty set. Nothing is pruned. Given
//   `UnreadableFile`, it also says why a file that is there gave nothing, and
//   `keepAside` moves that file beside itself ("<name>.unreadable-<UTC
//   time>", never over another file) so that the next save cannot replace
//   what it held; otherwise the file is left where it is, and the next save
//   replaces it. So a caller that goes on to save keeps a bad file aside (or
//   refuses to start over it); one that only reads leaves it. Callers that
//   share the file serialise their loads and saves.
// - `save` writes only histories that moved a byte, encodes them, then
//   creates missing parent directories and replaces the file atomically: on
//   any error the previous file stays intact and the error is returned, and
//   a failed encoding leaves no directory behind.
// The store holds no state beyond its location; it takes no lock, so callers
// that save from several threads serialise the calls.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "netcore/history/rate_history.h"
#include "support/files.h"
#include "support/plist/value.h"
#include "support/result.h"

namespace netvane {

using HistorySet = std::map<std::string, RateHistory>;

// What becomes of a file that is there but holds no readable history.
enum class UnreadableFile { leave, keepAside };

struct HistoryLoad {
    HistorySet histories;
    // Set when a file was there but gave no history: why.
    std::optional<Error> unreadable;
    // Where that file now is, when it was to be kept aside; or why it could
    // not be (it is then still where it was).
    std::optional<std::string> keptAs;
    std::optional<Error> keepAsideError;

    bool operator==(const HistoryLoad&) const = default;
};

struct HistoryStore {
    std::string url;  // the file's path; the application chooses it

    explicit HistoryStore(std::string url) : url(std::move(url)) {}

    Status save(const HistorySet& histories) const;
    HistorySet load() const;
    HistoryLoad load(UnreadableFile whenUnreadable) const;
    // What `load` does, with the reason when it falls back to the empty set
    // (a missing file included).
    Result<HistorySet> loadReportingErrors() const;

    // The document `save` writes, and its inverse. Without buckets, empty
    // data stands in for each tier's packed buckets.
    static plist::Value encode(const HistorySet& histories, bool withBuckets = true);
    static Result<HistorySet> decode(const plist::Value& document);
    // The bytes of the file `save` writes, handed to `sink` in order; the
    // buckets are packed on the way, a chunk at a time.
    static Status write(const HistorySet& histories, const ByteSink& sink);
};

}  // namespace netvane
