#include "netcore/publicip/public_ip.h"

namespace netvane {
namespace {

struct ProviderEntry {
    PublicIPProvider provider;
    std::string_view rawValue;
    std::string_view title;
    std::string_view url;  // empty: the user supplies it
};

// Both services answer GET /ip with the caller's address as plain text and
// listen on IPv4 and IPv6, so either one can serve both attempts.
constexpr std::array<ProviderEntry, 3> kProviders = {{
    {PublicIPProvider::echoPrimary, "echoPrimary", "ifconfig.co", "https://ifconfig.co/ip"},
    {PublicIPProvider::echoSecondary, "echoSecondary", "ifconfig.me", "https://ifconfig.me/ip"},
    {PublicIPProvider::custom, "custom", "Custom URL", ""},
}};

const ProviderEntry& entry(PublicIPProvider provider) {
    return kProviders[static_cast<std::size_t>(provider)];
}

// The coder's ordinary "corrupted data" code.
constexpr std::int64_t kCoderReadCorruptError = 4864;

}  // namespace

namespace PublicIPProviders {

std::string_view rawValue(PublicIPProvider provider) { return entry(provider).rawValue; }

std::string_view title(PublicIPProvider provider) { return entry(provider).title; }

std::optional<std::string> url(PublicIPProvider provider) {
    const auto& e = entry(provider);
    if (e.url.empty()) return std::nullopt;
    return std::string(e.url);
}

std::optional<PublicIPProvider> fromRawValue(std::string_view rawValue) {
    for (const auto& e : kProviders) {
        if (e.rawValue == rawValue) return e.provider;
    }
    return std::nullopt;
}

plist::Value encode(PublicIPProvider provider) { return plist::Value(rawValue(provider)); }

Result<PublicIPProvider> decode(const plist::Value& value) {
    if (const std::string* text = value.string()) {
        if (auto provider = fromRawValue(*text)) return *provider;
        return Error{kCocoaErrorDomain, kCoderReadCorruptError,
                     "Cannot initialize PublicIPProvider from invalid String value " + *text};
    }
    return Error{kCocoaErrorDomain, kCoderReadCorruptError, "Expected to decode String but found another value"};
}

}  // namespace PublicIPProviders

std::string PublicIPError::errorDescription() const {
    switch (kind) {
        case Case::http:
            return "The server answered HTTP " + std::to_string(status);
        case Case::badURL:
            return "The lookup URL isn't valid";
        case Case::malformed:
            return "The server's response couldn't be read";
        case Case::noAddress:
            return "The response has no IP address";
    }
    return {};
}

Error PublicIPError::toError() const {
    return Error{kPublicIPErrorDomain, static_cast<std::int64_t>(kind), errorDescription()};
}

}  // namespace netvane
