#include "network_namespace.h"

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace netvane::testing {

std::optional<std::string> enterPrivateNetworkNamespace() {
    if (::geteuid() != 0) return "needs root to create network namespaces";
    if (::unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
        return std::string("cannot create a network namespace: ") + std::strerror(errno);
    }
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0) {
        return std::string("cannot mount a private sysfs: ") + std::strerror(errno);
    }
    if (!sh("ip link set lo up")) return "cannot bring up loopback (is iproute2 installed?)";
    return std::nullopt;
}

bool sh(const std::string& command) {
    int status = std::system((command + " 1>&2").c_str());
    return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::optional<std::string> capture(const std::string& command) {
    std::FILE* pipe = ::popen((command + " 2>/dev/null").c_str(), "r");
    if (!pipe) return std::nullopt;
    std::string out;
    char buffer[4096];
    std::size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
    const int status = ::pclose(pipe);
    if (status == -1 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
    return out;
}

std::optional<TunHolder> TunHolder::start(const std::vector<std::string>& names, bool ownNamespace) {
    int ready[2], release[2];
    if (::pipe2(ready, O_CLOEXEC) != 0) return std::nullopt;
    if (::pipe2(release, O_CLOEXEC) != 0) {
        ::close(ready[0]);
        ::close(ready[1]);
        return std::nullopt;
    }
    pid_t pid = ::fork();
    if (pid == 0) {
        ::close(ready[0]);
        ::close(release[1]);
        char answer = 'R';
        if (ownNamespace && ::unshare(CLONE_NEWNET) != 0) answer = 'E';
        for (const std::string& name : names) {
            int fd = ::open("/dev/net/tun", O_RDWR);
            ifreq ifr{};
            ifr.ifr_flags = IFF_TUN | IFF_NO_PI;
            std::strncpy(ifr.ifr_name, name.c_str(), IFNAMSIZ - 1);
            if (fd < 0 || ::ioctl(fd, TUNSETIFF, &ifr) != 0) answer = 'E';
        }
        if (::write(ready[1], &answer, 1) != 1) ::_exit(1);
        char byte;
        while (::read(release[0], &byte, 1) < 0 && errno == EINTR) {
        }
        ::_exit(0);
    }
    ::close(ready[1]);
    ::close(release[0]);
    UniqueFd readyEnd(ready[0]);
    UniqueFd releaseEnd(release[1]);
    if (pid < 0) return std::nullopt;
    TunHolder holder(pid, std::move(releaseEnd));
    char answer = 0;
    if (::read(readyEnd.get(), &answer, 1) != 1 || answer != 'R') return std::nullopt;
    return holder;
}

TunHolder::TunHolder(TunHolder&& other) noexcept : pid_(std::exchange(other.pid_, -1)), release_(std::move(other.release_)) {}

TunHolder::~TunHolder() {
    if (pid_ <= 0) return;
    release_.reset();  // the child sees end of file and exits
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace netvane::testing
