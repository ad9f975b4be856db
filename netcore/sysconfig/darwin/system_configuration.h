// What the macOS configuration backends share: reading the framework's
// strings and failures, and describing its interface objects. Objective-C++
// only.
#pragma once

#import <Foundation/Foundation.h>
#include <SystemConfiguration/SystemConfiguration.h>

#include <optional>
#include <string>
#include <string_view>

#include "netcore/sysconfig/network_interface_list.h"
#include "support/result.h"

namespace netvane::sc {

// Nothing for null and for anything that is not a string.
std::optional<std::string> string(CFTypeRef text);

// The framework's reason for its last failure on this thread, after `what`.
Error lastError(std::string_view what);

// The interface with the ones it is layered on.
NetworkInterface describe(SCNetworkInterfaceRef interface);

}  // namespace netvane::sc
