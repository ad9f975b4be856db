#include "support/process.h"

#include <poll.h>

#include <cerrno>

namespace netvane {

// A pidfd, like a kqueue watching a process's exit, turns readable when the
// process exits.
bool ProcessHandle::alive() const {
    if (!handle_) return false;
    pollfd entry{handle_.get(), POLLIN, 0};
    int ready;
    do {
        ready = ::poll(&entry, 1, 0);
    } while (ready < 0 && errno == EINTR);
    return ready == 0;
}

}  // namespace netvane
