#include <sys/socket.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "support/files.h"
#include "support/ipc/server.h"

namespace netvane::ipc {
namespace {

// Field 22 of /proc/PID/stat; the command name (field 2) may hold spaces and
// parentheses, so fields are counted from the last ')'.
std::uint64_t processStartTime(pid_t pid) {
    auto stat = readFile("/proc/" + std::to_string(pid) + "/stat", 4096);
    if (!stat) return 0;
    const std::string text(stat->begin(), stat->end());
    std::size_t pos = text.rfind(')');
    if (pos == std::string::npos) return 0;
    // After ')' come fields 3, 4, ...: skip 19 of them to reach field 22.
    for (int field = 3; field < 22; ++field) {
        pos = text.find(' ', pos + 1);
        if (pos == std::string::npos) return 0;
    }
    return std::strtoull(text.c_str() + pos + 1, nullptr, 10);
}

}  // namespace

Result<PeerCredentials> peerCredentials(int fd) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
        return posixError(errno, "SO_PEERCRED");
    }
    return PeerCredentials{credentials.pid, credentials.uid, credentials.gid, processStartTime(credentials.pid)};
}

}  // namespace netvane::ipc
