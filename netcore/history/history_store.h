// Persists the rate histories of all interfaces between runs: one binary
// property list mapping interface name to history (see rate_history.h for the
// shape of each history). Forgiving on reading, strict on writing.
//
// - `load` never fails: a missing, unreadable or foreign file yields an empty
//   set and is left as it is; the next save replaces it. Nothing is pruned.
// - `save` writes only histories that moved a byte, encodes them, then
//   creates missing parent directories and replaces the file atomically: on
//   any error the previous file stays intact and the error is returned, and
//   a failed encoding leaves no directory behind.
// The store holds no state beyond its location; it takes no lock, so callers
// that save from several threads serialise the calls.
#pragma once

#include <map>
#include <string>

#include "netcore/history/rate_history.h"
#include "support/files.h"
#include "support/plist/value.h"
#include "support/result.h"

namespace netvane {

using HistorySet = std::map<std::string, RateHistory>;

struct HistoryStore {
    std::string url;  // the file's path; the application chooses it

    explicit HistoryStore(std::string url) : url(std::move(url)) {}

    Status save(const HistorySet& histories) const;
    HistorySet load() const;
    // What `load` does, with the reason when it falls back to the empty set.
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
