// netvane public-ip: this machine's public IPv4 and IPv6 addresses, asked of
// an echo service once over each family, the way the application asks.
#include <cstdio>
#include <optional>
#include <string>

#include "command.h"
#include "io.h"
#include "netcore/publicip/http_exchange.h"
#include "netcore/publicip/public_ip.h"
#include "support/json.h"
#include "support/unicode.h"

namespace netvane::cli {
namespace {

int run(const Arguments& arguments);

std::string providerLine(PublicIPProvider provider, std::string_view note) {
    std::string line = "  " + std::string(PublicIPProviders::rawValue(provider));
    line.resize(17, ' ');
    return line + *PublicIPProviders::url(provider) + std::string(note) + "\n";
}

const Command command{
    "public-ip",
    "netvane public-ip [--provider echoPrimary|echoSecondary] [--json]\n"
    "netvane public-ip --url URL [--json-key-path PATH] [--json]",
    "look up the public IPv4 and IPv6 addresses",
    {},
    {Option::choice("--provider", "NAME", "a built-in echo service (default echoPrimary)", "echoPrimary|echoSecondary"),
     Option::valued("--url", ValueKind::text, "URL",
                    "any http or https service (port 1 to 65535) that answers with the address as plain text or "
                    "in JSON"),
     Option::valued("--json-key-path", ValueKind::text, "PATH",
                    "where the address is in a JSON answer, dotted (data.ip); without it, one of the usual keys"),
     Option::flag("--json", "{\"ipv4\", \"ipv6\"} or {\"error\"}, leaving out what is absent")},
    "Asks an echo service for the public addresses, over IPv4 and IPv6 at the same time. The built-in "
    "services:\n" +
        providerLine(PublicIPProvider::echoPrimary, " (the default)") +
        providerLine(PublicIPProvider::echoSecondary, "") +
        "Exit status 0 when at least one family answered; 1 when neither did; 2 for a usage error, a URL that "
        "cannot be asked among them.",
    run,
};

// What is wrong with a URL the lookup could not use, for the usage message;
// nothing when it is fine.
std::optional<std::string> urlProblem(const std::string& url) {
    const std::size_t scheme = url.find("://");
    if (scheme == std::string::npos) return "needs http:// or https:// in front";
    if (url.compare(0, scheme, "http") != 0 && url.compare(0, scheme, "https") != 0) {
        return "can only be http or https, in lower case";
    }
    std::string_view authority = std::string_view(url).substr(scheme + 3);
    authority = authority.substr(0, authority.find_first_of("/?#"));
    if (const std::size_t at = authority.rfind('@'); at != std::string_view::npos) authority.remove_prefix(at + 1);
    const std::size_t close = authority.starts_with('[') ? authority.find(']') : 0;
    if (close == std::string_view::npos) return "has an IPv6 address without its closing ]";
    const std::size_t colon = authority.find(':', close);
    if (authority.substr(0, colon).empty() || authority.substr(0, colon) == "[]") return "has no host";
    if (colon != std::string_view::npos) {
        const std::string_view port = authority.substr(colon + 1);
        const bool digits = !port.empty() && port.size() <= 5 &&
                            port.find_first_not_of("0123456789") == std::string_view::npos;
        if (!digits || std::stoul(std::string(port)) == 0 || std::stoul(std::string(port)) > 65535) {
            return "needs a port from 1 to 65535 after the colon";
        }
    }
    if (!PublicIPService::parseLookupURL(url)) return "holds a character that must be percent-encoded, or a malformed host";
    return std::nullopt;
}

plist::Value jsonReport(const PublicIPResult& result) {
    plist::Dictionary report;
    if (result.ipv4) report.set("ipv4", *result.ipv4);
    if (result.ipv6) report.set("ipv6", *result.ipv6);
    if (result.error) report.set("error", *result.error);
    return report;
}

int run(const Arguments& arguments) {
    const std::optional<std::string> provider = arguments.text("--provider");
    const std::optional<std::string> url = arguments.text("--url");
    const std::optional<std::string> keyPath = arguments.text("--json-key-path");
    if (provider && url) return usageError(command, "--provider and --url exclude each other");
    if (keyPath && !url) return usageError(command, "--json-key-path needs --url");
    if (url) {
        if (auto problem = urlProblem(*url)) return usageError(command, "the URL '" + *url + "' " + *problem);
    }
    const std::string lookup =
        url ? *url
            : *PublicIPProviders::url(PublicIPProviders::fromRawValue(provider.value_or("echoPrimary")).value());

    const PublicIPResult result = PublicIPService::lookup(lookup, keyPath);
    const bool answered = result.ipv4 || result.ipv6;
    if (arguments.flag("--json")) {
        print(toJSON(jsonReport(result)));
        return answered ? kExitOK : kExitFailure;
    }
    if (!answered) return failure(result.error.value_or("no address"));
    print("IPv4: " + terminalText(result.ipv4.value_or("unavailable")) + "\nIPv6: " +
          terminalText(result.ipv6.value_or("unavailable")) + "\n");
    return kExitOK;
}

}  // namespace
}  // namespace netvane::cli
