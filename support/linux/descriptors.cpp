#include "support/descriptors.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace netvane {

UniqueFd openSocket(int domain, int type, int protocol) {
    return UniqueFd(::socket(domain, type | SOCK_CLOEXEC, protocol));
}

Result<Pipe> openPipe(bool nonBlocking) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC | (nonBlocking ? O_NONBLOCK : 0)) != 0) return posixError(errno, "pipe2");
    return Pipe{UniqueFd(ends[0]), UniqueFd(ends[1])};
}

}  // namespace netvane
