#include <sys/socket.h>

#include <cerrno>

#include "support/ipc/server.h"
#include "support/process.h"

namespace netvane::ipc {

Result<PeerCredentials> peerCredentials(int fd) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
        return posixError(errno, "SO_PEERCRED");
    }
    return PeerCredentials{credentials.pid, credentials.uid, credentials.gid, processStartTime(credentials.pid)};
}

}  // namespace netvane::ipc
