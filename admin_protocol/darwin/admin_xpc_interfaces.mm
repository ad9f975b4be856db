#include <objc/runtime.h>

#include <cstdio>
#include <cstdlib>

#include "admin_protocol/admin_protocols.h"
#include "admin_protocol/darwin/admin_xpc_protocols.h"
#include "support/darwin/foundation_values.h"

namespace netvane {
namespace {

// What the values inside a reply's collection may be: the reply keys'
// values are strings, numbers (booleans included) and dates.
NSSet* collectionClasses(WireType type) {
    switch (type) {
        case WireType::dictionary:
            return [NSSet setWithObjects:[NSDictionary class], [NSString class], [NSNumber class], [NSDate class], nil];
        case WireType::dictionaryArray:
            return [NSSet setWithObjects:[NSArray class], [NSDictionary class], [NSString class], [NSNumber class],
                                         [NSDate class], nil];
        default:
            return nil;
    }
}

[[noreturn]] void disagree(const ProtocolDescription& table, const char* what) {
    std::fprintf(stderr, "%.*s: the Objective-C protocol and the protocol table disagree: %s\n",
                 static_cast<int>(table.name.size()), table.name.data(), what);
    std::abort();
}

NSXPCInterface* interfaceFor(Protocol* protocol, const ProtocolDescription& table) {
    unsigned int count = 0;
    free(protocol_copyMethodDescriptionList(protocol, YES, YES, &count));
    if (count != table.methods.size()) disagree(table, "number of methods");
    NSXPCInterface* interface = [NSXPCInterface interfaceWithProtocol:protocol];
    for (const MethodDescription& method : table.methods) {
        const SEL selector = NSSelectorFromString(toNSString(method.selector));
        if (protocol_getMethodDescription(protocol, selector, YES, YES).name == nullptr) {
            disagree(table, std::string(method.selector).c_str());
        }
        for (NSUInteger i = 0; i < method.reply.size(); ++i) {
            if (NSSet* classes = collectionClasses(method.reply[i])) {
                [interface setClasses:classes forSelector:selector argumentIndex:i ofReply:YES];
            }
        }
    }
    return interface;
}

}  // namespace

NSXPCInterface* adminAppInterface() {
    static NSXPCInterface* interface = interfaceFor(@protocol(AdminAppProtocol), AdminAppProtocol);
    return interface;
}

NSXPCInterface* adminControlInterface() {
    static NSXPCInterface* interface = interfaceFor(@protocol(AdminControlProtocol), AdminControlProtocol);
    return interface;
}

}  // namespace netvane
