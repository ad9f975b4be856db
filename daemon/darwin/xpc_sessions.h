// The objects the daemon exports on its XPC connections: each wraps one
// AppSession or ControlSession and turns every message into its call,
// Foundation values into ours and back, errors into NSError (domain, code,
// localized description). Messages arrive on XPC's queues; replies may be
// sent from any thread, later. Objective-C++ only.
#pragma once

#import <Foundation/Foundation.h>

#include <memory>

#include "admin_protocol/darwin/admin_xpc_protocols.h"
#include "daemon/admin_daemon.h"

NS_ASSUME_NONNULL_BEGIN

@interface XPCAppSession : NSObject <AdminAppProtocol>
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;
- (instancetype)initWithDaemon:(std::shared_ptr<netvane::AdminDaemon>)daemon
                          peer:(netvane::PeerIdentity)peer NS_DESIGNATED_INITIALIZER;
// The connection is gone: the session's pending requests go with it.
- (void)ended;
@end

@interface XPCControlSession : NSObject <AdminControlProtocol>
- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;
- (instancetype)initWithDaemon:(std::shared_ptr<netvane::AdminDaemon>)daemon
                          peer:(netvane::PeerIdentity)peer NS_DESIGNATED_INITIALIZER;
@end

NS_ASSUME_NONNULL_END
