// The public-IP lookup: which echo service to ask, what a lookup produced, why
// one attempt failed, and the lookup itself.
//
// `PublicIPService::lookup` asks the service once over IPv4 and once over IPv6,
// in parallel, and folds both outcomes into one `PublicIPResult`; it blocks the
// calling thread until both attempts end (each is bounded by its timeout) and
// never throws. It keeps no state: any thread may call it at any time.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "support/plist/value.h"
#include "support/result.h"

namespace netvane {

class Cancellation;
class StreamConnector;

enum class PublicIPProvider { echoPrimary, echoSecondary, custom };

namespace PublicIPProviders {

inline constexpr std::array<PublicIPProvider, 3> allCases = {
    PublicIPProvider::echoPrimary, PublicIPProvider::echoSecondary, PublicIPProvider::custom};

std::string_view rawValue(PublicIPProvider provider);
inline std::string_view id(PublicIPProvider provider) { return rawValue(provider); }
// The host name of a built-in service, "Custom URL" for `custom`.
std::string_view title(PublicIPProvider provider);
// "https://<host>/ip" for the built-ins; absent for `custom`, whose URL the user supplies.
std::optional<std::string> url(PublicIPProvider provider);
// Exact, case-sensitive match of the three raw values.
std::optional<PublicIPProvider> fromRawValue(std::string_view rawValue);

// A provider is stored as a single string holding its raw value.
plist::Value encode(PublicIPProvider provider);
// Fails with the coder's data-corruption error for anything but a known raw value.
Result<PublicIPProvider> decode(const plist::Value& value);

}  // namespace PublicIPProviders

struct PublicIPResult {
    std::optional<std::string> ipv4;
    std::optional<std::string> ipv6;
    std::optional<std::string> error;  // set only when both families failed

    bool operator==(const PublicIPResult&) const = default;
};

// Why one attempt failed, when the failure is the lookup's own rather than the
// network's. Converted to `Error` at the boundary of the HTTP exchange.
struct PublicIPError {
    enum class Case { http, badURL, malformed, noAddress };

    Case kind = Case::malformed;
    std::int64_t status = 0;  // meaningful for `http` only

    static PublicIPError http(std::int64_t status) { return {Case::http, status}; }
    static PublicIPError badURL() { return {Case::badURL}; }
    static PublicIPError malformed() { return {Case::malformed}; }
    static PublicIPError noAddress() { return {Case::noAddress}; }

    std::string errorDescription() const;
    Error toError() const;

    bool operator==(const PublicIPError&) const = default;
};

inline constexpr const char* kPublicIPErrorDomain = "NetCore.PublicIPError";

namespace PublicIPService {

// IMPORTANT: one attempt's whole budget (resolution, connection, TLS, request
// and response); a hung service must not hold the caller longer than this.
inline constexpr std::chrono::milliseconds kAttemptTimeout{15'000};

struct LookupOptions {
    std::chrono::milliseconds timeout = kAttemptTimeout;
    // Opens the byte streams; the system's sockets and TLS when null.
    StreamConnector* connector = nullptr;
    // Cancelling wakes both attempts at once; they then fail with the
    // cancellation error.
    const Cancellation* cancellation = nullptr;
};

PublicIPResult lookup(std::string_view url, const std::optional<std::string>& jsonKeyPath,
                      const LookupOptions& options = {});

// Dotted-quad IPv4 or any textual IPv6 form the system's parser accepts; no
// zone suffix, no brackets.
bool isIPAddress(std::string_view text);

}  // namespace PublicIPService

}  // namespace netvane

template <>
struct std::hash<netvane::PublicIPProvider> {
    std::size_t operator()(netvane::PublicIPProvider provider) const noexcept {
        return std::hash<std::string_view>{}(netvane::PublicIPProviders::rawValue(provider));
    }
};
