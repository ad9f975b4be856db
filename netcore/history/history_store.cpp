#include "netcore/history/history_store.h"

#include <filesystem>

#include "support/files.h"
#include "support/plist/plist.h"

namespace netvane {

plist::Value HistoryStore::encode(const HistorySet& histories) {
    plist::Dictionary root;
    for (const auto& [name, history] : histories) {
        if (history.hasTraffic()) root.append(name, history.encode());
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

Status HistoryStore::save(const HistorySet& histories) const {
    const plist::Value document = encode(histories);
    auto bytes = plist::encodeBinaryPieces(document);
    if (!bytes) return bytes.error();
    std::filesystem::path parent = std::filesystem::path(url).parent_path();
    if (!parent.empty()) {
        // Ignored on purpose: if the directory is still missing, the write
        // below fails with the more useful error.
        (void)createDirectories(parent.string(), 0777, DirectoryMode::umasked);
    }
    return writeFileAtomically(url, bytes->pieces);
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

}  // namespace netvane
