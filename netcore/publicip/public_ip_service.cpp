#include <system_error>
#include <thread>

#include "netcore/publicip/http_exchange.h"

namespace netvane::PublicIPService {
namespace {

// One family's outcome: the address, or why there is none. A failure stays in
// its own family and never cancels the other attempt.
Result<std::string> attempt(std::string_view url, const std::optional<std::string>& jsonKeyPath,
                            IPVersion version, const LookupOptions& options) {
    const AttemptOptions attemptOptions{options.timeout, options.connector, options.cancellation};
    auto body = get(url, version, attemptOptions);
    if (!body) return body.error();
    if (auto address = extractAddress(*body, jsonKeyPath)) return std::move(*address);
    return PublicIPError::noAddress().toError();
}

}  // namespace

PublicIPResult lookup(std::string_view url, const std::optional<std::string>& jsonKeyPath,
                      const LookupOptions& options) {
    Result<std::string> v4 = Error{};
    Result<std::string> v6 = Error{};
    std::thread v4Thread;
    try {
        v4Thread = std::thread([&] { v4 = attempt(url, jsonKeyPath, IPVersion::v4, options); });
    } catch (const std::system_error&) {
        // No thread to spare: the families take turns, each still within its own budget.
        v4 = attempt(url, jsonKeyPath, IPVersion::v4, options);
    }
    v6 = attempt(url, jsonKeyPath, IPVersion::v6, options);
    if (v4Thread.joinable()) v4Thread.join();

    PublicIPResult result;
    if (v4) result.ipv4 = *v4;
    if (v6) result.ipv6 = *v6;
    // Only the IPv4 failure is reported when both fail: one line to show, and
    // IPv4 is the family every network is expected to have.
    if (!v4 && !v6) result.error = v4.error().message;
    return result;
}

}  // namespace netvane::PublicIPService
