// The vocabulary for describing an IPC protocol as data: each method's
// selector with its argument and reply types. Protocol tables (the admin
// protocols) are built from these; the server accepts exactly the selectors
// of its table and checks every argument against it before dispatch.
#pragma once

#include <span>
#include <string_view>

#include "support/plist/value.h"

namespace netvane {

enum class WireType {
    string,
    optionalString,   // string or nil
    boolean,
    data,             // byte buffer
    dictionary,
    dictionaryArray,  // array of dictionaries
    optionalError,    // error or nil
};

struct MethodDescription {
    std::string_view selector;
    std::span<const WireType> arguments;  // without the reply
    std::span<const WireType> reply;
};

struct ProtocolDescription {
    std::string_view name;
    std::span<const MethodDescription> methods;  // in declaration order

    const MethodDescription* find(std::string_view selector) const;
};

// Whether a decoded value (null for nil) is acceptable as `type`. Errors are
// not property-list values; the transport checks them itself.
bool acceptsValue(WireType type, const plist::Value* value);

}  // namespace netvane
