#include "support/ipc/client.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "support/ipc/stream.h"

namespace netvane::ipc {
namespace {

Error ipcError(std::int64_t code, std::string message) { return Error{kIpcErrorDomain, code, std::move(message)}; }

bool slotMatches(WireType type, const ReplySlot& slot) {
    if (type == WireType::optionalError) {
        return std::holds_alternative<std::monostate>(slot) || std::holds_alternative<Error>(slot);
    }
    if (std::holds_alternative<Error>(slot)) return false;
    const plist::Value* value = std::get_if<plist::Value>(&slot);
    return acceptsValue(type, value);
}

}  // namespace

Result<Client> Client::connect(const std::string& path, std::optional<std::chrono::milliseconds> deadline) {
    sockaddr_un address;
    if (!unixSocketAddress(path, address)) return ipcError(kUnreachable, "socket path too long: " + path);
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) return posixError(errno, "socket");
    // A local connect waits for room in the listener's queue as long as the
    // send timeout says, and then fails with EAGAIN.
    const auto sendTimeout = [&fd](std::chrono::milliseconds limit) {
        const timeval value{static_cast<time_t>(limit.count() / 1000),
                            static_cast<suseconds_t>(limit.count() % 1000 * 1000)};
        return ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &value, sizeof value) == 0;
    };
    if (deadline && !sendTimeout(std::max(*deadline, std::chrono::milliseconds(1)))) {
        return posixError(errno, "SO_SNDTIMEO");
    }
    int result;
    do {
        result = ::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    if (result != 0 && deadline && errno == EAGAIN) {
        return ipcError(kTimedOut, "the daemon at " + path + " took no connection within " +
                                       std::to_string(deadline->count()) + " ms");
    }
    if (result != 0) {
        return ipcError(kUnreachable, "cannot reach " + path + ": " + posixError(errno).message);
    }
    if (deadline && !sendTimeout(std::chrono::milliseconds(0))) return posixError(errno, "SO_SNDTIMEO");
    return Client(std::move(fd));
}

Result<std::vector<ReplySlot>> Client::call(const MethodDescription& method, std::vector<Argument> args,
                                            std::optional<std::chrono::milliseconds> replyDeadline) {
    if (args.size() != method.arguments.size()) return ipcError(kBadArguments, "wrong number of arguments");
    for (std::size_t i = 0; i < args.size(); ++i) {
        if (!acceptsValue(method.arguments[i], args[i] ? &*args[i] : nullptr)) {
            return ipcError(kBadArguments, "argument " + std::to_string(i + 1) + " has the wrong type");
        }
    }
    MutexLock lock(mutex_);
    auto reply = exchange(method, std::move(args), replyDeadline);
    // After any other failure the stream may be out of step with our calls:
    // a later call could read this call's late reply. The connection is done.
    const bool inStep = reply.ok() || (reply.error().domain == kIpcErrorDomain && reply.error().code == kDropped);
    if (!inStep) ::shutdown(fd_.get(), SHUT_RDWR);
    return reply;
}

Result<std::vector<ReplySlot>> Client::exchange(const MethodDescription& method, std::vector<Argument> args,
                                                std::optional<std::chrono::milliseconds> replyDeadline) {
    const std::uint64_t seq = nextSeq_++;
    auto frame = encodeCall(Call{std::string(method.selector), seq, std::move(args)});
    if (!frame) return frame.error();
    if (!writeFully(fd_.get(), frame->data(), frame->size()).ok()) {
        return ipcError(kConnectionLost, "connection closed by the daemon");
    }
    std::optional<ReadDeadlines> deadlines;
    if (replyDeadline) {
        const auto sent = std::chrono::steady_clock::now();
        deadlines = ReadDeadlines{*replyDeadline, *replyDeadline, [sent] { return sent; }};
    }
    auto body = reader_.next(deadlines);
    if (!body) {
        if (body.error().domain == kIpcErrorDomain) return body.error();
        if (body.error().code == ETIMEDOUT) {
            return ipcError(kTimedOut, "no reply from the daemon within " + std::to_string(replyDeadline->count()) +
                                           " ms");
        }
        return ipcError(kConnectionLost, "connection closed by the daemon");
    }
    auto reply = decodeReply(*body);
    if (!reply) return reply.error();
    if (reply->seq != seq) return ipcError(kBadReply, "reply to another call");
    if (reply->dropped) return ipcError(kDropped, "the daemon dropped the call without an answer");
    if (reply->values.size() != method.reply.size()) return ipcError(kBadReply, "reply has the wrong shape");
    for (std::size_t i = 0; i < reply->values.size(); ++i) {
        if (!slotMatches(method.reply[i], reply->values[i])) return ipcError(kBadReply, "reply has the wrong shape");
    }
    return std::move(reply->values);
}

}  // namespace netvane::ipc
