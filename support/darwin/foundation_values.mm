#include "support/darwin/foundation_values.h"

#include <Security/Security.h>

#include <cstdint>
#include <limits>

#include "support/unicode.h"

namespace netvane {
namespace {

constexpr const char* kOSStatusErrorDomain = "NSOSStatusErrorDomain";

std::optional<plist::Value> fromNumber(NSNumber* number) {
    CFTypeRef ref = (__bridge CFTypeRef)number;
    if (CFGetTypeID(ref) == CFBooleanGetTypeID()) return plist::Value(static_cast<bool>(number.boolValue));
    if (CFNumberIsFloatType((__bridge CFNumberRef)number)) return plist::Value(number.doubleValue);
    // Unsigned 64-bit numbers beyond the signed range report themselves as 'Q'.
    if (std::string_view(number.objCType) == @encode(unsigned long long) &&
        number.unsignedLongLongValue > static_cast<unsigned long long>(std::numeric_limits<std::int64_t>::max())) {
        return plist::Value(number.unsignedLongLongValue);
    }
    return plist::Value(number.longLongValue);
}

}  // namespace

NSString* toNSString(std::string_view text) {
    NSString* string = [[NSString alloc] initWithBytes:text.data() length:text.size() encoding:NSUTF8StringEncoding];
    if (string != nil) return string;
    const std::string repaired = repairUtf8(text);
    return [[NSString alloc] initWithBytes:repaired.data() length:repaired.size() encoding:NSUTF8StringEncoding];
}

std::string fromNSString(NSString* text) {
    if (text == nil) return "";
    // Lossy only for unpaired surrogates, which UTF-8 cannot carry.
    NSData* bytes = [text dataUsingEncoding:NSUTF8StringEncoding allowLossyConversion:YES];
    return std::string(static_cast<const char*>(bytes.bytes), bytes.length);
}

id toFoundation(const plist::Value& value) {
    using Type = plist::Value::Type;
    switch (value.type()) {
        case Type::Boolean: return [NSNumber numberWithBool:*value.boolean()];
        case Type::Integer: return [NSNumber numberWithLongLong:*value.int64()];
        case Type::UnsignedInteger: return [NSNumber numberWithUnsignedLongLong:*value.uint64()];
        case Type::Real: return [NSNumber numberWithDouble:*value.real()];
        case Type::Date: return [NSDate dateWithTimeIntervalSinceReferenceDate:value.date()->secondsSinceReference];
        case Type::Data: return [NSData dataWithBytes:value.data()->data() length:value.data()->size()];
        case Type::String: return toNSString(*value.string());
        case Type::Array: return toFoundation(*value.array());
        case Type::Dictionary: return toFoundation(*value.dictionary());
    }
    return nil;
}

NSDictionary* toFoundation(const plist::Dictionary& dictionary) {
    NSMutableDictionary* out = [NSMutableDictionary dictionaryWithCapacity:dictionary.size()];
    // Later entries replace earlier ones of the same key, as lookups see them.
    for (const auto& [key, value] : dictionary) out[toNSString(key)] = toFoundation(value);
    return out;
}

NSArray* toFoundation(const plist::Array& array) {
    NSMutableArray* out = [NSMutableArray arrayWithCapacity:array.size()];
    for (const plist::Value& value : array) [out addObject:toFoundation(value)];
    return out;
}

std::optional<plist::Value> fromFoundation(id object) {
    if (object == nil) return std::nullopt;
    if ([object isKindOfClass:[NSString class]]) return plist::Value(fromNSString(object));
    if ([object isKindOfClass:[NSNumber class]]) return fromNumber(object);
    if ([object isKindOfClass:[NSDate class]]) {
        return plist::Value(Date{[(NSDate*)object timeIntervalSinceReferenceDate]});
    }
    if ([object isKindOfClass:[NSData class]]) {
        NSData* data = object;
        const auto* bytes = static_cast<const std::uint8_t*>(data.bytes);
        return plist::Value(plist::Data(bytes, bytes + data.length));
    }
    if ([object isKindOfClass:[NSArray class]]) {
        plist::Array array;
        for (id element in (NSArray*)object) {
            if (auto value = fromFoundation(element)) array.push_back(std::move(*value));
        }
        return plist::Value(std::move(array));
    }
    if ([object isKindOfClass:[NSDictionary class]]) {
        plist::Dictionary dictionary;
        NSDictionary* source = object;
        for (id key in source) {
            if (![key isKindOfClass:[NSString class]]) continue;
            if (auto value = fromFoundation(source[key])) dictionary.append(fromNSString(key), std::move(*value));
        }
        return plist::Value(std::move(dictionary));
    }
    return std::nullopt;
}

NSError* toNSError(const Error& error) {
    NSDictionary* userInfo = @{};
    if (error.domain != kCocoaErrorDomain) userInfo = @{NSLocalizedDescriptionKey : toNSString(error.message)};
    return [NSError errorWithDomain:toNSString(error.domain) code:static_cast<NSInteger>(error.code) userInfo:userInfo];
}

Error fromNSError(NSError* error) {
    return Error{fromNSString(error.domain), static_cast<std::int64_t>(error.code),
                 fromNSString(error.localizedDescription)};
}

Error osStatusError(int status, std::string_view context) {
    NSString* text = CFBridgingRelease(SecCopyErrorMessageString(status, nullptr));
    std::string message(context);
    message += ": ";
    message += text != nil ? fromNSString(text) : "OSStatus " + std::to_string(status);
    return Error{kOSStatusErrorDomain, status, message};
}

}  // namespace netvane
