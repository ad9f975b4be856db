// The documents the plist benchmarks measure, shared with the plistlib
// comparison (plist_bench --dump-documents DIR writes them out).
#pragma once

#include <string>
#include <vector>

#include "support/plist/value.h"

namespace netvane::bench {

struct NamedDocument {
    std::string name;
    plist::Value value;
};

plist::Value pairingFile(std::size_t pairings);
// About `objects` values: small dictionaries of strings and integers, like IPC frames.
plist::Value frameTree(std::size_t objects);
// A rate-history-shaped file: `interfaces` x 3 tiers of packed buckets, `totalBytes` in all.
plist::Value blobDocument(std::size_t interfaces, std::size_t totalBytes);

std::vector<NamedDocument> allDocuments();

}  // namespace netvane::bench
