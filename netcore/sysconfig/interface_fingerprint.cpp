#include "netcore/sysconfig/interface_fingerprint.h"

namespace netvane {
namespace {

Error decodeError(std::string message) {
    return Error{kFingerprintErrorDomain, kFingerprintDecodeError, std::move(message)};
}

// Absent stays absent; present must be a string.
Result<std::optional<std::string>> optionalString(const plist::Value& dict, const char* key) {
    const plist::Value* value = dict.find(key);
    if (!value) return std::optional<std::string>();
    if (const std::string* text = value->string()) return std::optional<std::string>(*text);
    return decodeError(std::string("\"") + key + "\" is not a string");
}

}  // namespace

plist::Value InterfaceFingerprint::encode() const {
    plist::Dictionary dict;
    dict.append("key", key);
    dict.append("name", name);
    if (title) dict.append("title", *title);
    if (address) dict.append("address", *address);
    dict.append("permanentAddress", permanentAddress);
    return dict;
}

Result<InterfaceFingerprint> InterfaceFingerprint::decode(const plist::Value& value) {
    if (!value.dictionary()) return decodeError("a fingerprint is not a dictionary");
    InterfaceFingerprint fingerprint;
    for (auto [key, field] : {std::pair{"key", &fingerprint.key}, std::pair{"name", &fingerprint.name}}) {
        auto text = optionalString(value, key);
        if (!text) return text.error();
        if (!*text) return decodeError(std::string("missing key \"") + key + "\"");
        *field = std::move(**text);
    }
    for (auto [key, field] : {std::pair{"title", &fingerprint.title}, std::pair{"address", &fingerprint.address}}) {
        auto text = optionalString(value, key);
        if (!text) return text.error();
        *field = std::move(*text);
    }
    if (const plist::Value* permanent = value.find("permanentAddress")) {
        auto flag = permanent->boolean();
        if (!flag) return decodeError("\"permanentAddress\" is not a boolean");
        fingerprint.permanentAddress = *flag;
    }
    return fingerprint;
}

}  // namespace netvane

std::size_t std::hash<netvane::InterfaceFingerprint>::operator()(
    const netvane::InterfaceFingerprint& v) const noexcept {
    return netvane::hashFields(v.key, v.name, v.title, v.address, v.permanentAddress);
}
