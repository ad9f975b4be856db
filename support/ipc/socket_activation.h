// Listening sockets handed over by the service manager at start
// (LISTEN_PID, LISTEN_FDS, LISTEN_FDNAMES). Each is returned once, with its
// name; the environment variables are cleared so children do not see them.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "support/unique_fd.h"

namespace netvane::ipc {

std::vector<std::pair<std::string, UniqueFd>> takeInheritedListeners();

}  // namespace netvane::ipc
