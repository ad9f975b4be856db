#include "support/ipc/stream.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace netvane::ipc {

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

namespace {
// What one read asks for when the buffer has room: a whole small frame and
// the start of the next.
constexpr std::size_t kReadChunk = 64 * 1024;
}  // namespace

bool FrameReader::fill(std::size_t needed) {
    if (end_ - start_ >= needed) return true;
    if (start_ == end_ && buffer_.size() > kReadChunk) {
        // A big frame grew the buffer and has been consumed: give the memory back.
        buffer_ = std::vector<std::uint8_t>();
        start_ = end_ = 0;
    }
    if (start_ > 0) {  // keep unread bytes at the front
        std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(start_), buffer_.begin() + static_cast<std::ptrdiff_t>(end_),
                  buffer_.begin());
        end_ -= start_;
        start_ = 0;
    }
    if (buffer_.size() < std::max(needed, kReadChunk)) buffer_.resize(std::max(needed, kReadChunk));
    while (end_ < needed) {
        const ssize_t n = ::read(fd_, buffer_.data() + end_, buffer_.size() - end_);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        end_ += static_cast<std::size_t>(n);
    }
    return true;
}

Result<std::span<const std::uint8_t>> FrameReader::next() {
    if (!fill(kFrameHeaderBytes)) return posixError(ECONNRESET, "read");
    std::uint8_t header[kFrameHeaderBytes];
    std::copy_n(buffer_.begin() + static_cast<std::ptrdiff_t>(start_), kFrameHeaderBytes, header);
    auto length = frameBodyLength(header);
    if (!length) return length.error();
    if (!fill(kFrameHeaderBytes + *length)) return posixError(ECONNRESET, "read");
    const std::span<const std::uint8_t> body(buffer_.data() + start_ + kFrameHeaderBytes, *length);
    start_ += kFrameHeaderBytes + *length;
    return body;
}

bool unixSocketAddress(const std::string& path, sockaddr_un& address) {
    address = sockaddr_un{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return false;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

}  // namespace netvane::ipc
