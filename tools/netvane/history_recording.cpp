#include "history_recording.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

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

}  // namespace netvane::cli
