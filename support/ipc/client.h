// The client end of the IPC: one connection to one service, one call at a
// time (calls from several threads take turns). A call checks its arguments
// and the reply's shape against the method's description.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "support/ipc/frame.h"
#include "support/ipc/protocol_description.h"
#include "support/ipc/stream.h"
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

class Client {
public:
    static Result<Client> connect(const std::string& path);

    // Moves happen between connect and the first call, while nothing is buffered.
    Client(Client&& other) noexcept
        : fd_(std::move(other.fd_)), reader_(fd_.get()), nextSeq_(other.nextSeq_) {}

    // Blocks until the reply arrives or the connection ends. A call that fails
    // on the wire (not one refused before sending) ends the connection.
    Result<std::vector<ReplySlot>> call(const MethodDescription& method, std::vector<Argument> args);

    int fd() const { return fd_.get(); }

private:
    explicit Client(UniqueFd fd) : fd_(std::move(fd)), reader_(fd_.get()) {}
    Result<std::vector<ReplySlot>> exchange(const MethodDescription& method, std::vector<Argument> args);

    UniqueFd fd_;
    FrameReader reader_;
    std::mutex mutex_;
    std::uint64_t nextSeq_ = 1;
};

}  // namespace netvane::ipc
