// macOS has neither SOCK_CLOEXEC nor pipe2: the flags are set right after
// creation.
#include "support/descriptors.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace netvane {
namespace {

bool setFlags(int fd, bool nonBlocking) {
    if (::fcntl(fd, F_SETFD, FD_CLOEXEC) != 0) return false;
    if (!nonBlocking) return true;
    const int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

}  // namespace

UniqueFd openSocket(int domain, int type, int protocol) {
    UniqueFd fd(::socket(domain, type, protocol));
    if (fd && !setFlags(fd.get(), false)) {
        const int saved = errno;
        fd.reset();
        errno = saved;
    }
    return fd;
}

Result<Pipe> openPipe(bool nonBlocking) {
    int ends[2];
    if (::pipe(ends) != 0) return posixError(errno, "pipe");
    Pipe pipe{UniqueFd(ends[0]), UniqueFd(ends[1])};
    if (!setFlags(pipe.readEnd.get(), nonBlocking) || !setFlags(pipe.writeEnd.get(), nonBlocking)) {
        return posixError(errno, "fcntl");
    }
    return pipe;
}

}  // namespace netvane
