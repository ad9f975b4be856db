#include "admin_protocol/darwin/xpc_channel.h"

#include <dispatch/dispatch.h>

#include "admin_protocol/admin_constants.h"
#include "admin_protocol/darwin/admin_xpc_protocols.h"
#include "support/darwin/foundation_values.h"
#include "support/mutex.h"

namespace netvane {
namespace {

using ipc::Argument;
using ipc::ReplySlot;
using Reply = Result<std::vector<ReplySlot>>;

// One call's outcome: the reply, or the connection's error, whichever XPC
// delivers (it delivers exactly one of them, on a queue of its own).
class PendingCall {
public:
    void finish(Reply reply) {
        {
            MutexLock guard(mutex_);
            if (reply_) return;
            reply_.emplace(std::move(reply));
        }
        dispatch_semaphore_signal(done_);
    }

    // A reply that comes after the deadline finds nobody waiting, and is dropped.
    Reply wait(ReplyDeadline deadline) {
        const dispatch_time_t until =
            deadline ? dispatch_time(DISPATCH_TIME_NOW, static_cast<std::int64_t>(deadline->count()) * NSEC_PER_MSEC)
                     : DISPATCH_TIME_FOREVER;
        if (dispatch_semaphore_wait(done_, until) != 0) {
            return Error{ipc::kIpcErrorDomain, ipc::kTimedOut,
                         "no reply from the daemon within " + std::to_string(deadline->count()) + " ms"};
        }
        MutexLock guard(mutex_);
        return std::move(*reply_);
    }

private:
    Mutex mutex_;
    std::optional<Reply> reply_ NV_GUARDED_BY(mutex_);
    dispatch_semaphore_t done_ = dispatch_semaphore_create(0);
};

ReplySlot slot(id object) {
    if (object == nil) return std::monostate{};
    if ([object isKindOfClass:[NSError class]]) return fromNSError(object);
    if (auto value = fromFoundation(object)) return std::move(*value);
    // The interface admits only property-list classes; anything else is a
    // reply of the wrong shape, which the client refuses.
    return Error{ipc::kIpcErrorDomain, ipc::kBadReply, "the daemon's reply holds a value of an unknown class"};
}

Reply values(std::initializer_list<id> objects) {
    std::vector<ReplySlot> slots;
    for (id object : objects) slots.push_back(slot(object));
    return slots;
}

// The connection's own failures, in the transport error vocabulary the
// clients share on every platform.
Error transportError(NSError* error, const std::string& service) {
    if ([error.domain isEqualToString:NSCocoaErrorDomain]) {
        if (error.code == NSXPCConnectionInvalid) {
            return Error{ipc::kIpcErrorDomain, ipc::kUnreachable, "cannot reach the service " + service};
        }
        if (error.code == NSXPCConnectionInterrupted) {
            return Error{ipc::kIpcErrorDomain, ipc::kConnectionLost, "connection closed by the daemon"};
        }
        if (error.code == NSXPCConnectionReplyInvalid) {
            return Error{ipc::kIpcErrorDomain, ipc::kBadReply, "the daemon's reply could not be decoded"};
        }
    }
    return fromNSError(error);
}

NSString* text(const Argument& argument) {
    return argument && argument->string() ? toNSString(*argument->string()) : nil;
}

NSData* bytes(const Argument& argument) {
    if (!argument || !argument->data()) return nil;
    return [NSData dataWithBytes:argument->data()->data() length:argument->data()->size()];
}

class XpcChannel final : public AdminChannel {
public:
    XpcChannel(const std::string& service, NSXPCInterface* interface) : service_(service) {
        connection_ = [[NSXPCConnection alloc] initWithMachServiceName:toNSString(service)
                                                               options:NSXPCConnectionPrivileged];
        connection_.remoteObjectInterface = interface;
        [connection_ resume];
    }
    ~XpcChannel() override { [connection_ invalidate]; }

    Reply call(const MethodDescription& method, std::vector<Argument> args, ReplyDeadline replyDeadline) override {
        if (args.size() != method.arguments.size()) {
            return Error{ipc::kIpcErrorDomain, ipc::kBadArguments, "wrong number of arguments"};
        }
        for (std::size_t i = 0; i < args.size(); ++i) {
            if (!acceptsValue(method.arguments[i], args[i] ? &*args[i] : nullptr)) {
                return Error{ipc::kIpcErrorDomain, ipc::kBadArguments,
                             "argument " + std::to_string(i + 1) + " has the wrong type"};
            }
        }
        // Calls take turns, as on every transport.
        MutexLock turn(turn_);
        auto pending = std::make_shared<PendingCall>();
        @autoreleasepool {
            const std::string service = service_;
            id proxy = [connection_ remoteObjectProxyWithErrorHandler:^(NSError* error) {
                pending->finish(transportError(error, service));
            }];
            if (!send(proxy, method.selector, args, pending)) {
                return Error{ipc::kIpcErrorDomain, ipc::kBadArguments,
                             "no such method: " + std::string(method.selector)};
            }
        }
        return pending->wait(replyDeadline);
    }

private:
    // One typed message per selector of the two protocols.
    // IMPORTANT: `pending` is taken by value. A block copies what it captures,
    // but of a reference it copies only the reference: the reply blocks, which
    // XPC may still hold after call() returns, would point into its frame.
    static bool send(id proxy, std::string_view selector, const std::vector<Argument>& args,
                     std::shared_ptr<PendingCall> pending) {
        auto one = ^(id value) { pending->finish(values({value})); };
        auto two = ^(id value, NSError* error) { pending->finish(values({value, error})); };
        if (selector == "statusWithToken:reply:") {
            [(id<AdminAppProtocol>)proxy statusWithToken:text(args[0]) reply:one];
        } else if (selector == "beginPairingWithReply:") {
            [(id<AdminAppProtocol>)proxy beginPairingWithReply:two];
        } else if (selector == "awaitPairingWithRequestID:reply:") {
            [(id<AdminAppProtocol>)proxy awaitPairingWithRequestID:text(args[0]) reply:two];
        } else if (selector == "setServiceEnabledWithServiceID:enabled:token:reply:") {
            [(id<AdminAppProtocol>)proxy setServiceEnabledWithServiceID:text(args[0])
                                                                enabled:*args[1]->boolean()
                                                                  token:text(args[2])
                                                                  reply:one];
        } else if (selector == "unpairWithToken:reply:") {
            [(id<AdminAppProtocol>)proxy unpairWithToken:text(args[0]) reply:one];
        } else if (selector == "tunnelOwnersWithReply:") {
            [(id<AdminAppProtocol>)proxy tunnelOwnersWithReply:one];
        } else if (selector == "statusWithReply:") {
            [(id<AdminControlProtocol>)proxy statusWithReply:one];
        } else if (selector == "pendingPairingsWithReply:") {
            [(id<AdminControlProtocol>)proxy pendingPairingsWithReply:one];
        } else if (selector == "approvePairingWithRequestID:authorization:reply:") {
            [(id<AdminControlProtocol>)proxy approvePairingWithRequestID:text(args[0])
                                                           authorization:bytes(args[1])
                                                                   reply:one];
        } else if (selector == "denyPairingWithRequestID:reply:") {
            [(id<AdminControlProtocol>)proxy denyPairingWithRequestID:text(args[0]) reply:one];
        } else if (selector == "unpairAllWithAuthorization:reply:") {
            [(id<AdminControlProtocol>)proxy unpairAllWithAuthorization:bytes(args[0]) reply:one];
        } else {
            return false;
        }
        return true;
    }

    std::string service_;
    NSXPCConnection* connection_;
    Mutex turn_;
};

}  // namespace

Result<AdminAppClient> connectAppClient() {
    return AdminAppClient(std::make_unique<XpcChannel>(AdminConstants::appServiceName(), adminAppInterface()));
}

Result<AdminControlClient> connectControlClient() {
    return AdminControlClient(
        std::make_unique<XpcChannel>(AdminConstants::controlServiceName(), adminControlInterface()));
}

}  // namespace netvane
