// The client end of the IPC: one connection to one service, one call at a
// time (calls from several threads take turns). A call checks its arguments
// and the reply's shape against the method's description.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "support/ipc/frame.h"
#include "support/ipc/protocol_description.h"
#include "support/ipc/stream.h"
#include "support/mutex.h"
#include "support/result.h"
#include "support/unique_fd.h"

namespace netvane::ipc {

// Error codes in kIpcErrorDomain.
inline constexpr std::int64_t kMalformedFrame = 1;
inline constexpr std::int64_t kFrameTooLarge = 2;
inline constexpr std::int64_t kUnreachable = 3;     // nobody listens at the path
inline constexpr std::int64_t kConnectionLost = 4;  // closed before the reply came
inline constexpr std::int64_t kBadArguments = 5;    // refused before sending
inline constexpr std::int64_t kBadReply = 6;
inline constexpr std::int64_t kDropped = 7;         // the daemon dropped the call unanswered
inline constexpr std::int64_t kTimedOut = 8;        // no reply within the caller's deadline

class Client {
public:
    // A listener whose queue is full holds a connect until it accepts; with a
    // deadline, no longer than that (kTimedOut).
    static Result<Client> connect(const std::string& path,
                                  std::optional<std::chrono::milliseconds> deadline = std::nullopt);

    // Moves happen between connect and the first call, while nothing is buffered.
    Client(Client&& other) noexcept NV_NO_THREAD_SAFETY_ANALYSIS
        : fd_(std::move(other.fd_)), reader_(fd_.get()), nextSeq_(other.nextSeq_) {}

    // Blocks until the reply arrives, the connection ends or, when one is
    // given, the reply deadline passes (kTimedOut; a reply already begun gets
    // as long again to finish). A call that fails on the wire (not one
    // refused before sending, nor one the daemon dropped) ends the connection.
    Result<std::vector<ReplySlot>> call(const MethodDescription& method, std::vector<Argument> args,
                                        std::optional<std::chrono::milliseconds> replyDeadline = std::nullopt);

    int fd() const { return fd_.get(); }

private:
    explicit Client(UniqueFd fd) : fd_(std::move(fd)), reader_(fd_.get()) {}
    Result<std::vector<ReplySlot>> exchange(const MethodDescription& method, std::vector<Argument> args,
                                            std::optional<std::chrono::milliseconds> replyDeadline)
        NV_REQUIRES(mutex_);

    UniqueFd fd_;
    Mutex mutex_;
    FrameReader reader_ NV_GUARDED_BY(mutex_);
    std::uint64_t nextSeq_ NV_GUARDED_BY(mutex_) = 1;
};

}  // namespace netvane::ipc
