// A listener on one Mach service, for macOS's IPC: every new connection must
// meet a code-signing requirement (the system refuses peers that do not, and
// nothing is logged), gets a session object of its own exported on the given
// interface, and ends that session when it is invalidated.
//
// Not checkable by building alone: whether the system accepts the
// requirement text, and which peers it lets through. Callbacks come on XPC's
// own queues, concurrently across connections. Objective-C++ only.
#pragma once

#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

@interface Listener : NSObject <NSXPCListenerDelegate>

- (instancetype)init NS_UNAVAILABLE;
+ (instancetype)new NS_UNAVAILABLE;

// Starts listening at once. `makeSession` makes the object to export on a new
// connection; `ended` is given that object when its connection is
// invalidated. Keep the listener for as long as the service should answer.
- (instancetype)initWithService:(NSString*)service
                    requirement:(NSString*)requirement
                      interface:(NSXPCInterface*)interface
                    makeSession:(id (^)(NSXPCConnection* connection))makeSession
                          ended:(void (^)(id session))ended NS_DESIGNATED_INITIALIZER;

@end

NS_ASSUME_NONNULL_END
