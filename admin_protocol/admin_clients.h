// Client proxies for the daemon's two services, one method per selector,
// over a channel of this platform's transport (linux/socket_channel.h,
// darwin/xpc_channel.h). Each call blocks until its reply arrives; a reply
// whose shape differs from the protocol's is refused (ipc::kBadReply).
// Errors the daemon sends come back as they crossed the wire (domain, code,
// description); transport failures are in ipc::kIpcErrorDomain
// (kUnreachable when no daemon answers, kTimedOut when a reply deadline
// passes, kDropped when the daemon let a call go unanswered).
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "support/ipc/client.h"  // the transport error codes every transport reports in
#include "support/ipc/frame.h"
#include "support/ipc/protocol_description.h"
#include "support/plist/value.h"
#include "support/result.h"

namespace netvane {

// One connection to one of the daemon's services. Calls from several threads
// take turns.
class AdminChannel {
public:
    virtual ~AdminChannel() = default;
    // Sends one call whose arguments follow `method` and blocks until its
    // reply comes, the connection ends or the deadline, if any, passes.
    virtual Result<std::vector<ipc::ReplySlot>> call(const MethodDescription& method, std::vector<ipc::Argument> args,
                                                     std::optional<std::chrono::milliseconds> replyDeadline) = 0;
};

// How long a client waits for each reply; nullopt: until it comes.
using ReplyDeadline = std::optional<std::chrono::milliseconds>;

class AdminAppClient {
public:
    explicit AdminAppClient(std::unique_ptr<AdminChannel> channel) : channel_(std::move(channel)) {}

    // For the calls that follow.
    void setReplyDeadline(ReplyDeadline deadline) { deadline_ = deadline; }

    Result<plist::Dictionary> status(const std::optional<std::string>& token);
    Result<std::string> beginPairing();
    Result<std::string> awaitPairing(const std::string& requestID);
    Status setServiceEnabled(const std::string& serviceID, bool enabled, const std::string& token);
    Status unpair(const std::string& token);
    Result<plist::Array> tunnelOwners();

private:
    std::unique_ptr<AdminChannel> channel_;
    ReplyDeadline deadline_;
};

class AdminControlClient {
public:
    explicit AdminControlClient(std::unique_ptr<AdminChannel> channel) : channel_(std::move(channel)) {}

    // For the calls that follow.
    void setReplyDeadline(ReplyDeadline deadline) { deadline_ = deadline; }

    Result<plist::Dictionary> status();
    Result<plist::Array> pendingPairings();
    Status approvePairing(const std::string& requestID, std::span<const std::uint8_t> authorization);
    Status denyPairing(const std::string& requestID);
    Status unpairAll(std::span<const std::uint8_t> authorization);

private:
    std::unique_ptr<AdminChannel> channel_;
    ReplyDeadline deadline_;
};

}  // namespace netvane
