// Frame reads and whole-buffer writes on stream sockets, retrying on EINTR.
// End of stream inside a frame is an error (ECONNRESET), so a truncated
// frame never looks complete.
#pragma once

#include <sys/un.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "support/ipc/frame.h"
#include "support/result.h"

namespace netvane::ipc {

// Bytes that frame buffers may hold beyond their first small piece, shared by
// every reader that is handed it. Thread-safe.
class ReadBudget {
public:
    explicit ReadBudget(std::size_t bytes) : available_(bytes) {}
    bool take(std::size_t bytes);
    void give(std::size_t bytes) { available_.fetch_add(bytes, std::memory_order_relaxed); }
    std::size_t available() const { return available_.load(std::memory_order_relaxed); }

private:
    std::atomic<std::size_t> available_;
};

// How long a server-side reader waits. The frame deadline counts from a
// frame's first header byte to its last byte. The idle deadline counts from
// the later of the last frame's end and `idleSince()`, which says since when
// the connection has had nothing outstanding, or nothing while a call still
// waits for its reply (the connection is not idle then).
struct ReadDeadlines {
    using TimePoint = std::chrono::steady_clock::time_point;
    std::chrono::milliseconds idle;
    std::chrono::milliseconds frame;
    std::function<std::optional<TimePoint>()> idleSince;
};

// Reads frames from a stream socket, taking whatever the socket has in one
// read so that a small frame costs one system call, not two. The buffer grows
// only as bytes arrive, never to what a header merely announces, and growth
// past the first piece is taken from the budget, when one is given. The
// returned body stays valid until the next call. Errors: end of stream, a
// read error, a header announcing an oversize or empty frame, a deadline
// (ETIMEDOUT) or an exhausted budget (ENOBUFS). A reader given deadlines sets
// the (blocking) socket's receive timeout to wake up and look at them. When
// given `midFrame`, it says there whether part of a frame has arrived, for
// other threads to read.
class FrameReader {
public:
    explicit FrameReader(int fd, ReadBudget* budget = nullptr, std::atomic<bool>* midFrame = nullptr)
        : fd_(fd), budget_(budget), midFrame_(midFrame) {}
    ~FrameReader();
    FrameReader(const FrameReader&) = delete;
    FrameReader& operator=(const FrameReader&) = delete;

    Result<std::span<const std::uint8_t>> next(const std::optional<ReadDeadlines>& deadlines = std::nullopt);

private:
    using TimePoint = std::chrono::steady_clock::time_point;
    // Until at least `needed` unread bytes, or an error.
    Status fill(std::size_t needed, const std::optional<ReadDeadlines>& deadlines, std::optional<TimePoint>& frameEnd);
    // ETIMEDOUT once the frame's deadline, or between frames the idle one, has passed.
    Status expired(const ReadDeadlines& deadlines, const std::optional<TimePoint>& frameEnd) const;
    Status armTick(const ReadDeadlines& deadlines);
    bool resize(std::size_t size);

    void publishMidFrame() const {
        if (midFrame_) midFrame_->store(end_ > start_, std::memory_order_relaxed);
    }

    int fd_;
    ReadBudget* budget_;
    std::atomic<bool>* midFrame_;
    std::vector<std::uint8_t> buffer_;
    std::size_t charged_ = 0;             // what buffer_ holds of the budget
    std::size_t start_ = 0, end_ = 0;    // unread bytes are [start_, end_)
    TimePoint lastFrameEnd_ = std::chrono::steady_clock::now();
    bool tickArmed_ = false;
};

Status writeFully(int fd, const std::uint8_t* buffer, std::size_t size);
// The same within a deadline for the whole buffer (ETIMEDOUT), however slowly
// the peer takes it.
Status writeFully(int fd, const std::uint8_t* buffer, std::size_t size, std::chrono::steady_clock::time_point deadline);

// The socket address of a filesystem path; false when the path is too long.
bool unixSocketAddress(const std::string& path, sockaddr_un& address);

}  // namespace netvane::ipc
