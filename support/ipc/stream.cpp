#include "support/ipc/stream.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace netvane::ipc {

Status readFully(int fd, std::uint8_t* buffer, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::read(fd, buffer, size);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return posixError(errno, "read");
        if (n == 0) return posixError(ECONNRESET, "read");
        buffer += n;
        size -= static_cast<std::size_t>(n);
    }
    return {};
}

Status writeFully(int fd, const std::uint8_t* buffer, std::size_t size) {
    while (size > 0) {
        // MSG_NOSIGNAL: a vanished peer is an error here, not a SIGPIPE.
        const ssize_t n = ::send(fd, buffer, size, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return posixError(errno, "send");
        buffer += n;
        size -= static_cast<std::size_t>(n);
    }
    return {};
}

bool unixSocketAddress(const std::string& path, sockaddr_un& address) {
    address = sockaddr_un{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

}  // namespace netvane::ipc
