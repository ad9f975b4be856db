#include "history_recording.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <tuple>
#include <unordered_set>

#include "io.h"
#include "support/plist/plist.h"

namespace netvane::cli {

std::string defaultHistoryFile() {
    if (const char* state = std::getenv("XDG_STATE_HOME"); state != nullptr && state[0] == '/') {
        return std::string(state) + "/netvane/history.plist";
    }
    if (const char* home = std::getenv("HOME"); home != nullptr && home[0] != '\0') {
        return std::string(home) + "/.local/state/netvane/history.plist";
    }
    return "";
}

Result<HistorySet> readHistoryFile(const std::string& file) {
    // The bytes are released before the histories are built, so the peak
    // holds at most two copies of the bucket data.
    auto document = [&]() -> Result<plist::Value> {
        auto bytes = readInput(file, kHistoryFileCap);
        if (!bytes) return bytes.error();
        return plist::decode(*bytes);
    }();
    if (!document) return document.error();
    return HistoryStore::decode(*document);
}

namespace {

// What stands at `file` now, to tell whether it changed: nothing, or its
// identity, size and modification time (a save is a rename, so a new inode).
std::optional<std::tuple<dev_t, ino_t, off_t, time_t>> fileState(const std::string& file) {
    struct stat info {};
    if (::stat(file.c_str(), &info) != 0) return std::nullopt;
    return std::tuple{info.st_dev, info.st_ino, info.st_size, info.st_mtime};
}

// The histories to continue from `file`: a missing file is an empty set,
// anything else that is not a readable history is refused.
Result<HistorySet> loadForRecording(const std::string& file) {
    auto loaded = readHistoryFile(file);
    if (loaded) return loaded;
    const Error& error = loaded.error();
    if (error.domain != kPosixErrorDomain || error.code != ENOENT) {
        return Error{error.domain, error.code,
                     file + " exists and is not a readable history (" + error.message +
                         "); it is left as it is: move it away, or give --history another file"};
    }
    struct stat link {};
    if (::lstat(file.c_str(), &link) == 0) {
        return Error{kPosixErrorDomain, ENOENT, file + " is a symbolic link to a missing file"};
    }
    return HistorySet{};
}

}  // namespace

Result<Recording> Recording::open(std::string file) {
    if (file.empty()) file = defaultHistoryFile();
    if (file.empty()) return Error{kPosixErrorDomain, ENOENT, "no HOME to keep the history in; give --history FILE"};
    // Read before the lock is taken, so that refusing a file leaves no lock
    // file beside it; read again under the lock if another writer saved
    // meanwhile.
    const auto before = fileState(file);
    if (const auto slash = file.find_last_of('/'); slash != std::string::npos && slash > 0) {
        // Where the first save would make it anyway; a failure shows at the lock.
        (void)createDirectories(file.substr(0, slash), 0777, DirectoryMode::umasked);
    }
    auto loaded = loadForRecording(file);
    if (!loaded) return loaded.error();
    auto lock = FileLock::tryLock(file);
    if (!lock && lock.error().code == EWOULDBLOCK) {
        return Error{kPosixErrorDomain, EWOULDBLOCK,
                     file + " is being recorded by another program (" + lock.error().message +
                         "); one program records a history file at a time: stop that one, or give --history "
                         "another file"};
    }
    if (!lock) return Error{lock.error().domain, lock.error().code, "cannot record into " + file + ": " + lock.error().message};
    if (fileState(file) != before) {
        loaded = loadForRecording(file);
        if (!loaded) return loaded.error();
    }
    for (auto& [name, history] : *loaded) history.apply(kRecordingRetention);
    return Recording(HistoryStore(file), std::move(*lock), std::move(*loaded));
}

Status Recording::saveIfDue(Date now, const HistorySet& histories) {
    if (lastSave_ && now.secondsSinceReference - *lastSave_ < kRecordingSaveEvery) return {};
    lastSave_ = now.secondsSinceReference;
    return save(histories);
}

RateRecorder::RateRecorder(HistorySet histories, double interval)
    : histories_(std::move(histories)), maxGap_(std::max(2 * interval, interval + 1)) {}

RateRecorder::Reading RateRecorder::record(Date now) {
    Reading reading;
    reading.snapshots = reader_.snapshot();
    std::unordered_set<std::string> names;
    for (const InterfaceSnapshot& snapshot : reading.snapshots) {
        names.insert(snapshot.name);
        if (auto sample = tracker_.update(snapshot.name, snapshot.counters, now, maxGap_)) {
            auto [it, fresh] = histories_.try_emplace(snapshot.name, kRecordingRetention);
            it->second.add(*sample);
            reading.rates.emplace_back(snapshot.name, *sample);
        }
    }
    tracker_.retain(names);
    for (auto& [name, history] : histories_) history.prune(now);
    return reading;
}

ConfigurationChanges::ConfigurationChanges(const std::string& queueName)
    : watcher_(std::make_shared<SerialQueue>(queueName), [this](const std::vector<std::string>&) { changed_ = true; }) {}

}  // namespace netvane::cli
