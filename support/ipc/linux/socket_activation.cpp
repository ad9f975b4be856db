#include "support/ipc/socket_activation.h"

#include <fcntl.h>
#include <unistd.h>

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

}  // namespace netvane::ipc
