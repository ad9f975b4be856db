#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "support/ipc/server.h"
#include "support/process.h"

namespace netvane::ipc {
namespace {

// SO_PEERPIDFD (Linux 6.5) is missing from older headers; the number is
// part of the kernel's ABI.
#ifndef SO_PEERPIDFD
constexpr int SO_PEERPIDFD = 77;
#endif

// The peer process as the kernel recorded it at connect time, where the
// kernel can say; otherwise a pidfd opened now, which names whatever process
// has that pid now (almost always the peer, which is still connected).
UniqueFd peerPidfd(int fd, pid_t pid) {
    int pidfd = -1;
    socklen_t length = sizeof pidfd;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERPIDFD, &pidfd, &length) == 0 && pidfd >= 0) return UniqueFd(pidfd);
    return UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
}

}  // namespace

Result<PeerCredentials> peerCredentials(int fd) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
        return posixError(errno, "SO_PEERCRED");
    }
    if (credentials.pid <= 0) return posixError(ESRCH, "peer has no process");
    UniqueFd pidfd = peerPidfd(fd, credentials.pid);
    if (!pidfd) return posixError(errno, "pidfd of peer " + std::to_string(credentials.pid));
    auto process = std::make_shared<const ProcessHandle>(std::move(pidfd));
    const std::uint64_t startTime = processStartTime(credentials.pid);
    // Alive after the start time was read: the pid named the pinned process
    // all along, so the start time is its own.
    if (startTime == 0 || !process->alive()) return posixError(ESRCH, "peer " + std::to_string(credentials.pid) + " has exited");
    return PeerCredentials{credentials.pid, credentials.uid, credentials.gid, startTime, std::move(process)};
}

}  // namespace netvane::ipc
