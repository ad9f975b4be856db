#include "history_recording.h"

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

}  // namespace netvane::cli
