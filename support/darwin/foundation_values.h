// Conversions between the system's own values and Foundation's, for the
// macOS files where the two meet (XPC, bundles, Security). Objective-C++
// only; every conversion is a copy.
#pragma once

#import <Foundation/Foundation.h>

#include <optional>
#include <string>
#include <string_view>

#include "support/plist/value.h"
#include "support/result.h"

namespace netvane {

// Invalid UTF-8 is repaired (U+FFFD), never dropped.
NSString* toNSString(std::string_view text);
// "" for nil.
std::string fromNSString(NSString* text);

id toFoundation(const plist::Value& value);
NSDictionary* toFoundation(const plist::Dictionary& dictionary);
NSArray* toFoundation(const plist::Array& array);

// Nothing for nil or an object that is no property-list value. Inside
// containers such objects, and dictionary entries whose key is no string,
// are left out: an information dictionary, for one, carries the URL it was
// read from.
std::optional<plist::Value> fromFoundation(id object);

// Domain, code and localized description. Cocoa errors cross with an empty
// user-info dictionary, as the system builds them itself, and Foundation
// supplies their description.
NSError* toNSError(const Error& error);
Error fromNSError(NSError* error);

// A Security or Authorization Services status, with the system's text.
Error osStatusError(int status, std::string_view context);

}  // namespace netvane
