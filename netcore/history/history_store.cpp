#include "netcore/history/history_store.h"

#include <cerrno>
#include <filesystem>

#include "support/files.h"
#include "support/plist/plist.h"

namespace netvane {

plist::Value HistoryStore::encode(const HistorySet& histories, bool withBuckets) {
    plist::Dictionary root;
    for (const auto& [name, history] : histories) {
        if (history.hasTraffic()) root.append(name, history.encode(withBuckets));
    }
    return root;
}

Result<HistorySet> HistoryStore::decode(const plist::Value& document) {
    const plist::Dictionary* root = document.dictionary();
    if (!root) return Error{kHistoryErrorDomain, kHistoryCorruptError, "the file's root is not a dictionary"};
    HistorySet histories;
    for (const auto& [name, encoded] : *root) {
        auto history = RateHistory::decode(encoded);
        if (!history) {
            Error error = history.error();
            error.message = "history of \"" + name + "\": " + error.message;
            return error;
        }
        // A repeated key keeps its last entry, as lookups in the document do.
        histories.insert_or_assign(name, std::move(*history));
    }
    return histories;
}

namespace {

// Calls `use` with the pieces of the file `save` writes; they live only for
// the call. The packed buckets are most of the file: they are packed on
// their way out rather than into the document first, since fresh memory for
// all of them cost more than writing the file.
Status withFilePieces(const HistorySet& histories, const std::function<Status(const plist::EncodedPieces&)>& use) {
    const plist::Value document = HistoryStore::encode(histories, /*withBuckets=*/false);
    // Each placeholder with its tier, in the order encode wrote them.
    std::vector<plist::DeferredData> deferred;
    auto entry = document.dictionary()->begin();
    for (const auto& [name, history] : histories) {
        if (!history.hasTraffic()) continue;
        const plist::Array& tiers = *entry->second.find("tiers")->array();
        for (std::size_t i = 0; i < history.tiers.size(); ++i) {
            const std::deque<Bucket>& buckets = history.tiers[i].buckets;
            deferred.push_back({tiers[i].find("buckets")->data(), buckets.size() * kPackedBucketSize,
                                [&buckets](std::size_t offset, std::span<std::uint8_t> out) {
                                    packBuckets(buckets, offset, out);
                                }});
        }
        ++entry;
    }
    auto pieces = plist::encodeBinaryPieces(document, deferred);
    if (!pieces) return pieces.error();
    return use(*pieces);
}

}  // namespace

Status HistoryStore::write(const HistorySet& histories, const ByteSink& sink) {
    return withFilePieces(histories, [&](const plist::EncodedPieces& pieces) { return pieces.writeTo(sink); });
}

Status HistoryStore::save(const HistorySet& histories) const {
    // The directory is made only once the document is encoded, so that a
    // history that cannot be written leaves nothing behind.
    return withFilePieces(histories, [&](const plist::EncodedPieces& pieces) {
        std::filesystem::path parent = std::filesystem::path(url).parent_path();
        if (!parent.empty()) {
            // Ignored on purpose: if the directory is still missing, the write
            // below fails with the more useful error.
            (void)createDirectories(parent.string(), 0777, DirectoryMode::umasked);
        }
        return writeFileAtomically(
            url, [&](const ByteSink& sink) { return pieces.writeTo(sink); }, 0644, pieces.size());
    });
}

Result<HistorySet> HistoryStore::loadReportingErrors() const {
    // The file's bytes are released before the histories are built, so the
    // peak holds at most two copies of the bucket data.
    auto document = [&]() -> Result<plist::Value> {
        auto bytes = readFile(url);
        if (!bytes) return bytes.error();
        return plist::decode(*bytes);
    }();
    if (!document) return document.error();
    return decode(*document);
}

HistorySet HistoryStore::load() const {
    auto histories = loadReportingErrors();
    return histories ? std::move(*histories) : HistorySet{};
}

HistoryLoad HistoryStore::load(UnreadableFile whenUnreadable) const {
    HistoryLoad loaded;
    auto histories = loadReportingErrors();
    if (histories) {
        loaded.histories = std::move(*histories);
        return loaded;
    }
    const Error& error = histories.error();
    const bool missing = error.domain == kPosixErrorDomain && (error.code == ENOENT || error.code == ENOTDIR);
    if (missing) return loaded;
    loaded.unreadable = error;
    if (whenUnreadable == UnreadableFile::keepAside) {
        auto kept = keepAside(url);
        if (kept) {
            loaded.keptAs = std::move(*kept);
        } else {
            loaded.keepAsideError = kept.error();
        }
    }
    return loaded;
}

}  // namespace netvane
