#include "support/file_lock.h"

#include <sys/file.h>

#include <cerrno>

namespace netvane {

bool lockOpenFileExclusively(int fd) {
    for (;;) {
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0) return true;
        if (errno != EINTR) return false;
    }
}

}  // namespace netvane
