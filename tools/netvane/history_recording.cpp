#include "history_recording.h"

#include <cerrno>
#include <cstdio>
#include <algorithm>
#include <cstdlib>
#include <unordered_set>

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

std::optional<std::string> chooseHistoryFile(std::string& file) {
    if (file.empty()) file = defaultHistoryFile();
    if (file.empty()) return "no HOME to keep the history in; give --history FILE";
    return std::nullopt;
}

HistorySet loadRecording(const HistoryStore& store) {
    auto loaded = store.loadReportingErrors();
    HistorySet histories;
    if (loaded) {
        histories = std::move(*loaded);
    } else if (loaded.error().code != ENOENT) {
        std::fprintf(stderr, "netvane: note: starting a new history; %s is unreadable: %s\n", store.url.c_str(),
                     loaded.error().message.c_str());
    }
    for (auto& [name, history] : histories) history.apply(kRecordingRetention);
    return histories;
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
