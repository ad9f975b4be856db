// netvane public-ip: this machine's public IPv4 and IPv6 addresses, asked of
// an echo service once over each family, the way the application asks.
#include <cstdio>
#include <optional>
#include <string>

#include "command.h"
#include "netcore/publicip/public_ip.h"
#include "support/json.h"

namespace netvane::cli {
namespace {

int run(const Args& args);

std::string providerLine(PublicIPProvider provider, std::string_view note) {
    std::string line = "        " + std::string(PublicIPProviders::rawValue(provider));
    line.resize(23, ' ');
    return line + *PublicIPProviders::url(provider) + std::string(note) + "\n";
}

const std::string kSynopsis =
    "  netvane public-ip [--provider echoPrimary|echoSecondary] [--json]\n"
    "  netvane public-ip --url URL [--json-key-path PATH] [--json]\n"
    "      Ask an echo service for the public addresses, over IPv4 and IPv6 at\n"
    "      the same time:\n" +
    providerLine(PublicIPProvider::echoPrimary, " (the default)") + providerLine(PublicIPProvider::echoSecondary, "") +
    "        --url URL      any http or https service answering with the address\n"
    "                       as plain text, or in a JSON object under PATH (dotted,\n"
    "                       e.g. data.ip) or under one of the usual keys.\n"
    "      Exit status 0 when at least one family answered. --json prints\n"
    "      {\"ipv4\", \"ipv6\"} or {\"error\"}, leaving out what is absent.";

const Command command{"public-ip", kSynopsis, "look up the public IPv4 and IPv6 addresses", run};

struct Options {
    std::optional<PublicIPProvider> provider;
    std::optional<std::string> url;
    std::optional<std::string> jsonKeyPath;
    bool json = false;
};

// Fills options or returns the usage problem.
std::optional<std::string> parse(const Args& args, Options& options) {
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        if (arg == "--json") {
            options.json = true;
            continue;
        }
        if (arg != "--provider" && arg != "--url" && arg != "--json-key-path") {
            return "unknown argument '" + std::string(arg) + "'";
        }
        if (++i == args.size()) return std::string(arg) + " needs a value";
        const std::string value(args[i]);
        if (arg == "--provider") {
            const auto provider = PublicIPProviders::fromRawValue(value);
            if (!provider || !PublicIPProviders::url(*provider)) {
                return "unknown provider '" + value + "' (echoPrimary or echoSecondary; --url for any other)";
            }
            options.provider = provider;
        } else if (arg == "--url") {
            options.url = value;
        } else {
            options.jsonKeyPath = value;
        }
    }
    if (options.provider && options.url) return "--provider and --url exclude each other";
    if (options.jsonKeyPath && !options.url) return "--json-key-path needs --url";
    return std::nullopt;
}

plist::Value jsonReport(const PublicIPResult& result) {
    plist::Dictionary report;
    if (result.ipv4) report.set("ipv4", *result.ipv4);
    if (result.ipv6) report.set("ipv6", *result.ipv6);
    if (result.error) report.set("error", *result.error);
    return report;
}

int run(const Args& args) {
    Options options;
    if (auto problem = parse(args, options)) return usageError(command, *problem);
    const std::string url =
        options.url ? *options.url : *PublicIPProviders::url(options.provider.value_or(PublicIPProvider::echoPrimary));

    const PublicIPResult result = PublicIPService::lookup(url, options.jsonKeyPath);
    const bool answered = result.ipv4 || result.ipv6;
    if (options.json) {
        std::printf("%s\n", toJSON(jsonReport(result)).c_str());
        return answered ? kExitOK : kExitFailure;
    }
    if (!answered) return failure(result.error.value_or("no address"));
    std::printf("IPv4: %s\nIPv6: %s\n", result.ipv4.value_or("unavailable").c_str(),
                result.ipv6.value_or("unavailable").c_str());
    return kExitOK;
}

}  // namespace
}  // namespace netvane::cli
