#include "netcore/sysconfig/darwin/system_configuration.h"

#include "support/darwin/foundation_values.h"

namespace netvane::sc {

std::optional<std::string> string(CFTypeRef text) {
    if (text == nullptr || CFGetTypeID(text) != CFStringGetTypeID()) return std::nullopt;
    return fromNSString((__bridge NSString*)text);
}

Error lastError(std::string_view what) {
    NSError* reported = CFBridgingRelease(SCCopyLastError());
    Error error;
    if (reported != nil) {
        error = fromNSError(reported);
    } else {
        const int status = SCError();
        error = Error{"SystemConfiguration", status, SCErrorString(status)};
    }
    error.message = std::string(what) + ": " + error.message;
    return error;
}

NetworkInterface describe(SCNetworkInterfaceRef interface) {
    // Every getter returns a reference the interface owns; nothing to release.
    return describeInterfaceChain(
        interface,
        [](SCNetworkInterfaceRef layer) {
            NetworkInterface described;
            described.bsdName = string(SCNetworkInterfaceGetBSDName(layer));
            described.displayName = string(SCNetworkInterfaceGetLocalizedDisplayName(layer));
            described.interfaceType = string(SCNetworkInterfaceGetInterfaceType(layer));
            described.hardwareAddress = string(SCNetworkInterfaceGetHardwareAddressString(layer));
            return described;
        },
        [](SCNetworkInterfaceRef layer) { return SCNetworkInterfaceGetInterface(layer); });
}

}  // namespace netvane::sc
