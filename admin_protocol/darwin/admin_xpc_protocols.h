// The two protocols as XPC sees them: runtime-visible Objective-C protocols
// with exactly the selectors, argument types and reply types of the protocol
// table (admin_protocols.h), and the interfaces built from them. Every
// method answers through its reply exactly once. Objective-C++ only.
#pragma once

#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

@protocol AdminAppProtocol
- (void)statusWithToken:(nullable NSString*)token reply:(void (^)(NSDictionary<NSString*, id>* status))reply;
- (void)beginPairingWithReply:(void (^)(NSString* _Nullable requestID, NSError* _Nullable error))reply;
- (void)awaitPairingWithRequestID:(NSString*)requestID
                            reply:(void (^)(NSString* _Nullable token, NSError* _Nullable error))reply;
- (void)setServiceEnabledWithServiceID:(NSString*)serviceID
                               enabled:(BOOL)enabled
                                 token:(NSString*)token
                                 reply:(void (^)(NSError* _Nullable error))reply;
- (void)unpairWithToken:(NSString*)token reply:(void (^)(NSError* _Nullable error))reply;
- (void)tunnelOwnersWithReply:(void (^)(NSArray<NSDictionary<NSString*, id>*>* owners))reply;
@end

@protocol AdminControlProtocol
- (void)statusWithReply:(void (^)(NSDictionary<NSString*, id>* status))reply;
- (void)pendingPairingsWithReply:(void (^)(NSArray<NSDictionary<NSString*, id>*>* pending))reply;
- (void)approvePairingWithRequestID:(NSString*)requestID
                      authorization:(NSData*)authorization
                              reply:(void (^)(NSError* _Nullable error))reply;
- (void)denyPairingWithRequestID:(NSString*)requestID reply:(void (^)(NSError* _Nullable error))reply;
- (void)unpairAllWithAuthorization:(NSData*)authorization reply:(void (^)(NSError* _Nullable error))reply;
@end

namespace netvane {

// Built once, on first use. The classes a reply's dictionaries and arrays may
// carry are set from the table; a protocol and its table that disagree stop
// the program at once.
NSXPCInterface* adminAppInterface();
NSXPCInterface* adminControlInterface();

}  // namespace netvane

NS_ASSUME_NONNULL_END
