// The persisted description of one interface: a saved pin, or a live
// interface described the same way so that pins can be matched against it.
// `key` is the caller's stable identity for exact matching; an interface with
// a permanent (burned-in) address is only ever matched by key.
//
// Coding: a dictionary with "key" and "name" (strings, required), "title" and
// "address" (strings, written only when present) and "permanentAddress"
// (boolean, always written; false when absent on reading).
#pragma once

#include <optional>
#include <string>

#include "netcore/interfaces/hashing.h"
#include "support/plist/value.h"
#include "support/result.h"

namespace netvane {

inline constexpr const char* kFingerprintErrorDomain = "netvane.fingerprint";
inline constexpr std::int64_t kFingerprintDecodeError = 1;

struct InterfaceFingerprint {
    std::string key;
    std::string name;
    std::optional<std::string> title;
    std::optional<std::string> address;  // hardware address text
    bool permanentAddress = false;

    plist::Value encode() const;
    static Result<InterfaceFingerprint> decode(const plist::Value& value);

    bool operator==(const InterfaceFingerprint&) const = default;
};

}  // namespace netvane

NETVANE_DECLARE_HASH(netvane::InterfaceFingerprint);
