#include "support/ipc/stream.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace netvane::ipc {
namespace {

// The longest a reader with deadlines sleeps before it looks at them again.
constexpr std::chrono::milliseconds kLongestTick{1000};

// The buffer every reader starts with and shrinks back to: a whole small
// frame and the start of the next. Not taken from the budget, so a peer that
// exhausts the budget cannot keep the others from sending ordinary calls.
constexpr std::size_t kReadChunk = 16 * 1024;

int remainingMilliseconds(std::chrono::steady_clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(left.count() + 1, 0, 60'000));
}

}  // namespace

bool ReadBudget::take(std::size_t bytes) {
    std::size_t available = available_.load(std::memory_order_relaxed);
    do {
        if (available < bytes) return false;
    } while (!available_.compare_exchange_weak(available, available - bytes, std::memory_order_relaxed));
    return true;
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

Status writeFully(int fd, const std::uint8_t* buffer, std::size_t size, std::chrono::steady_clock::time_point deadline) {
    while (size > 0) {
        const ssize_t n = ::send(fd, buffer, size, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n >= 0) {
            buffer += n;
            size -= static_cast<std::size_t>(n);
            continue;
        }
        if (errno == EINTR) continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) return posixError(errno, "send");
        if (std::chrono::steady_clock::now() >= deadline) return posixError(ETIMEDOUT, "send");
        pollfd entry{fd, POLLOUT, 0};
        if (::poll(&entry, 1, remainingMilliseconds(deadline)) < 0 && errno != EINTR) return posixError(errno, "poll");
    }
    return {};
}

FrameReader::~FrameReader() {
    if (budget_ && charged_ > 0) budget_->give(charged_);
}

bool FrameReader::resize(std::size_t size) {
    const std::size_t charge = size > kReadChunk ? size - kReadChunk : 0;
    if (budget_ && charge > charged_ && !budget_->take(charge - charged_)) return false;
    if (budget_ && charge < charged_) budget_->give(charged_ - charge);
    if (budget_) charged_ = charge;
    if (size < buffer_.size()) {
        buffer_ = std::vector<std::uint8_t>(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(size));
    } else {
        buffer_.resize(size);
    }
    return true;
}

Status FrameReader::expired(const ReadDeadlines& deadlines, const std::optional<TimePoint>& frameEnd) const {
    const auto now = std::chrono::steady_clock::now();
    if (frameEnd) return now >= *frameEnd ? posixError(ETIMEDOUT, "read") : Status{};
    const std::optional<TimePoint> since = deadlines.idleSince ? deadlines.idleSince() : lastFrameEnd_;
    if (since && now >= std::max(*since, lastFrameEnd_) + deadlines.idle) return posixError(ETIMEDOUT, "idle");
    return {};
}

Status FrameReader::armTick(const ReadDeadlines& deadlines) {
    if (tickArmed_) return {};
    // A blocking read that wakes up now and then to look at the deadlines
    // costs one system call per read, as a plain blocking read does.
    const auto tick = std::max(std::chrono::milliseconds(10),
                               std::min({kLongestTick, deadlines.frame / 4, deadlines.idle / 4}));
    const timeval timeout{static_cast<time_t>(tick.count() / 1000), static_cast<suseconds_t>(tick.count() % 1000 * 1000)};
    if (::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0) return posixError(errno, "SO_RCVTIMEO");
    tickArmed_ = true;
    return {};
}

Status FrameReader::fill(std::size_t needed, const std::optional<ReadDeadlines>& deadlines,
                         std::optional<TimePoint>& frameEnd) {
    if (end_ - start_ >= needed) return {};
    if (start_ == end_ && buffer_.size() > kReadChunk) {
        // A big frame grew the buffer and has been consumed: give the memory back.
        start_ = end_ = 0;
        resize(kReadChunk);
    }
    if (start_ > 0) {  // keep unread bytes at the front
        std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(start_), buffer_.begin() + static_cast<std::ptrdiff_t>(end_),
                  buffer_.begin());
        end_ -= start_;
        start_ = 0;
    }
    if (buffer_.size() < kReadChunk) resize(kReadChunk);
    if (deadlines) {
        if (auto armed = armTick(*deadlines); !armed) return armed;
    }
    while (end_ < needed) {
        if (end_ == buffer_.size()) {
            // Grow only by what has arrived: a header alone buys nothing.
            if (!resize(std::min(needed, buffer_.size() * 2))) return posixError(ENOBUFS, "read");
        }
        const ssize_t n = ::read(fd_, buffer_.data() + end_, buffer_.size() - end_);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && deadlines && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (auto late = expired(*deadlines, frameEnd); !late) return late;
            continue;
        }
        if (n < 0) return posixError(errno, "read");
        if (n == 0) return posixError(ECONNRESET, "read");
        end_ += static_cast<std::size_t>(n);
        publishMidFrame();
        if (!deadlines) continue;
        // Bytes that trickle in buy no time: the frame's deadline stands.
        if (!frameEnd) frameEnd = std::chrono::steady_clock::now() + deadlines->frame;
        if (end_ < needed) {
            if (auto late = expired(*deadlines, frameEnd); !late) return late;
        }
    }
    return {};
}

Result<std::span<const std::uint8_t>> FrameReader::next(const std::optional<ReadDeadlines>& deadlines) {
    // The frame's deadline starts with its first byte, which may already be here.
    std::optional<TimePoint> frameEnd;
    if (deadlines && end_ > start_) frameEnd = std::chrono::steady_clock::now() + deadlines->frame;
    if (auto filled = fill(kFrameHeaderBytes, deadlines, frameEnd); !filled) return filled.error();
    std::uint8_t header[kFrameHeaderBytes];
    std::copy_n(buffer_.begin() + static_cast<std::ptrdiff_t>(start_), kFrameHeaderBytes, header);
    auto length = frameBodyLength(header);
    if (!length) return length.error();
    if (auto filled = fill(kFrameHeaderBytes + *length, deadlines, frameEnd); !filled) return filled.error();
    const std::span<const std::uint8_t> body(buffer_.data() + start_ + kFrameHeaderBytes, *length);
    start_ += kFrameHeaderBytes + *length;
    lastFrameEnd_ = std::chrono::steady_clock::now();
    publishMidFrame();
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
