#include "daemon/darwin/xpc_sessions.h"

#include <cstdlib>
#include <optional>
#include <string>

#include "daemon/sessions.h"
#include "support/darwin/foundation_values.h"

using netvane::Error;
using netvane::fromNSString;
using netvane::toFoundation;
using netvane::toNSError;
using netvane::toNSString;

namespace {

NSError* _Nullable errorOrNil(const std::optional<Error>& error) { return error ? toNSError(*error) : nil; }

netvane::ErrorReply errorReply(void (^reply)(NSError* _Nullable)) {
    return [reply](std::optional<Error> error) { reply(errorOrNil(error)); };
}

netvane::PairingReply pairingReply(void (^reply)(NSString* _Nullable, NSError* _Nullable)) {
    return [reply](std::optional<std::string> value, std::optional<Error> error) {
        reply(value ? toNSString(*value) : nil, errorOrNil(error));
    };
}

}  // namespace

@implementation XPCAppSession {
    std::unique_ptr<netvane::AppSession> _session;
}

- (instancetype)init {
    std::abort();  // a session belongs to a daemon and a peer
}

- (instancetype)initWithDaemon:(std::shared_ptr<netvane::AdminDaemon>)daemon peer:(netvane::PeerIdentity)peer {
    if ((self = [super init])) _session = std::make_unique<netvane::AppSession>(std::move(daemon), peer);
    return self;
}

- (void)ended {
    _session->ended();
}

- (void)statusWithToken:(NSString*)token reply:(void (^)(NSDictionary<NSString*, id>*))reply {
    std::optional<std::string> text;
    if (token != nil) text = fromNSString(token);
    _session->statusWithToken(std::move(text),
                              [reply](netvane::plist::Dictionary status) { reply(toFoundation(status)); });
}

- (void)beginPairingWithReply:(void (^)(NSString* _Nullable, NSError* _Nullable))reply {
    _session->beginPairing(pairingReply(reply));
}

- (void)awaitPairingWithRequestID:(NSString*)requestID reply:(void (^)(NSString* _Nullable, NSError* _Nullable))reply {
    _session->awaitPairing(fromNSString(requestID), pairingReply(reply));
}

- (void)setServiceEnabledWithServiceID:(NSString*)serviceID
                               enabled:(BOOL)enabled
                                 token:(NSString*)token
                                 reply:(void (^)(NSError* _Nullable))reply {
    _session->setServiceEnabled(fromNSString(serviceID), enabled, fromNSString(token), errorReply(reply));
}

- (void)unpairWithToken:(NSString*)token reply:(void (^)(NSError* _Nullable))reply {
    _session->unpair(fromNSString(token), errorReply(reply));
}

- (void)tunnelOwnersWithReply:(void (^)(NSArray<NSDictionary<NSString*, id>*>*))reply {
    _session->tunnelOwners([reply](netvane::plist::Array owners) { reply(toFoundation(owners)); });
}

@end

@implementation XPCControlSession {
    std::unique_ptr<netvane::ControlSession> _session;
}

- (instancetype)init {
    std::abort();  // a session belongs to a daemon and a peer
}

- (instancetype)initWithDaemon:(std::shared_ptr<netvane::AdminDaemon>)daemon peer:(netvane::PeerIdentity)peer {
    if ((self = [super init])) _session = std::make_unique<netvane::ControlSession>(std::move(daemon), peer);
    return self;
}

- (void)statusWithReply:(void (^)(NSDictionary<NSString*, id>*))reply {
    _session->statusWithReply([reply](netvane::plist::Dictionary status) { reply(toFoundation(status)); });
}

- (void)pendingPairingsWithReply:(void (^)(NSArray<NSDictionary<NSString*, id>*>*))reply {
    _session->pendingPairings([reply](netvane::plist::Array pending) { reply(toFoundation(pending)); });
}

- (void)approvePairingWithRequestID:(NSString*)requestID
                      authorization:(NSData*)authorization
                              reply:(void (^)(NSError* _Nullable))reply {
    const auto* bytes = static_cast<const std::uint8_t*>(authorization.bytes);
    _session->approvePairing(fromNSString(requestID), std::vector<std::uint8_t>(bytes, bytes + authorization.length),
                             errorReply(reply));
}

- (void)denyPairingWithRequestID:(NSString*)requestID reply:(void (^)(NSError* _Nullable))reply {
    _session->denyPairing(fromNSString(requestID), errorReply(reply));
}

- (void)unpairAllWithAuthorization:(NSData*)authorization reply:(void (^)(NSError* _Nullable))reply {
    const auto* bytes = static_cast<const std::uint8_t*>(authorization.bytes);
    _session->unpairAll(std::vector<std::uint8_t>(bytes, bytes + authorization.length), errorReply(reply));
}

@end
