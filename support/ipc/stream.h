// Frame reads and whole-buffer writes on blocking stream sockets, retrying on
// EINTR. End of stream inside a frame is an error (ECONNRESET), so a truncated
// frame never looks complete.
#pragma once

#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "support/ipc/frame.h"
#include "support/result.h"

namespace netvane::ipc {

// Reads frames from a stream socket, taking whatever the socket has in one
// read so that a small frame costs one system call, not two. The returned body
// stays valid until the next call. Errors: end of stream, a read error, or a
// header announcing an oversize or empty frame.
class FrameReader {
public:
    explicit FrameReader(int fd) : fd_(fd) {}
    Result<std::span<const std::uint8_t>> next();

private:
    bool fill(std::size_t needed);  // until at least `needed` unread bytes

    int fd_;
    std::vector<std::uint8_t> buffer_;
    std::size_t start_ = 0, end_ = 0;  // unread bytes are [start_, end_)
};
Status writeFully(int fd, const std::uint8_t* buffer, std::size_t size);

// The socket address of a filesystem path; false when the path is too long.
bool unixSocketAddress(const std::string& path, sockaddr_un& address);

}  // namespace netvane::ipc
