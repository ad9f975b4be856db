// Listening sockets handed over by the service manager at start
// (LISTEN_PID, LISTEN_FDS, LISTEN_FDNAMES). Each is returned once, with its
// name; the environment variables are cleared so children do not see them.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "support/result.h"
#include "support/unique_fd.h"

namespace netvane::ipc {

std::vector<std::pair<std::string, UniqueFd>> takeInheritedListeners();

// Ok when `fd` is a listening Unix-domain stream socket, the only kind the
// daemon serves on; a descriptor of any other kind handed over under a
// service's name is a configuration mistake (EINVAL says which).
Status checkListeningUnixStream(int fd);

}  // namespace netvane::ipc
