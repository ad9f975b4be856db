#include "support/ipc/darwin/listener.h"

#include <cstdlib>

@implementation Listener {
    NSXPCListener* _listener;
    NSString* _requirement;
    NSXPCInterface* _interface;
    id (^_makeSession)(NSXPCConnection*);
    void (^_ended)(id);
}

- (instancetype)init {
    // A listener needs its service, requirement and sessions; there is no
    // sensible default.
    std::abort();
}

- (instancetype)initWithService:(NSString*)service
                    requirement:(NSString*)requirement
                      interface:(NSXPCInterface*)interface
                    makeSession:(id (^)(NSXPCConnection*))makeSession
                          ended:(void (^)(id))ended {
    if ((self = [super init])) {
        _listener = [[NSXPCListener alloc] initWithMachServiceName:service];
        _requirement = [requirement copy];
        _interface = interface;
        _makeSession = [makeSession copy];
        _ended = [ended copy];
        _listener.delegate = self;
        [_listener resume];
    }
    return self;
}

- (BOOL)listener:(NSXPCListener*)listener shouldAcceptNewConnection:(NSXPCConnection*)connection {
    (void)listener;
    [connection setCodeSigningRequirement:_requirement];
    id session = _makeSession(connection);
    connection.exportedInterface = _interface;
    connection.exportedObject = session;
    // The handler holds the session until the end, and not the connection,
    // which holds the handler.
    void (^ended)(id) = _ended;
    connection.invalidationHandler = ^{
        ended(session);
    };
    [connection resume];
    return YES;
}

@end
