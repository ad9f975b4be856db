#include "support/ipc/socket_activation.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <cstdlib>
#include <string_view>

namespace netvane::ipc {

std::vector<std::pair<std::string, UniqueFd>> takeInheritedListeners() {
    constexpr int kFirstFd = 3;  // the service manager's convention
    std::vector<std::pair<std::string, UniqueFd>> listeners;
    const char* pid = std::getenv("LISTEN_PID");
    const char* count = std::getenv("LISTEN_FDS");
    const char* names = std::getenv("LISTEN_FDNAMES");
    const bool forUs = pid && count && std::strtol(pid, nullptr, 10) == getpid();
    if (forUs) {
        std::string_view rest = names ? names : "";
        const long n = std::strtol(count, nullptr, 10);
        for (long i = 0; i < n && i < 64; ++i) {
            const std::size_t colon = rest.find(':');
            std::string name(rest.substr(0, colon));
            rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
            const int fd = kFirstFd + static_cast<int>(i);
            ::fcntl(fd, F_SETFD, FD_CLOEXEC);
            listeners.emplace_back(std::move(name), UniqueFd(fd));
        }
    }
    ::unsetenv("LISTEN_PID");
    ::unsetenv("LISTEN_FDS");
    ::unsetenv("LISTEN_FDNAMES");
    return listeners;
}

Status checkListeningUnixStream(int fd) {
    struct stat info {};
    if (::fstat(fd, &info) != 0) return posixError(errno, "descriptor " + std::to_string(fd));
    if (!S_ISSOCK(info.st_mode)) return posixError(EINVAL, "descriptor " + std::to_string(fd) + " is not a socket");
    int domain = 0, type = 0, listening = 0;
    socklen_t length = sizeof domain;
    const bool known = ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 &&
                       (length = sizeof type, ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0) &&
                       (length = sizeof listening, ::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) == 0);
    if (!known) return posixError(errno, "descriptor " + std::to_string(fd));
    if (domain != AF_UNIX || type != SOCK_STREAM || !listening) {
        return posixError(EINVAL, "descriptor " + std::to_string(fd) + " is not a listening Unix stream socket");
    }
    return {};
}

}  // namespace netvane::ipc
