#include <arpa/inet.h>

#include <charconv>
#include <string_view>

#include "netcore/publicip/http_exchange.h"

namespace netvane::PublicIPService {
namespace {

bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isHex(char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool isUnreserved(char c) { return isAlpha(c) || isDigit(c) || std::string_view("-._~").find(c) != std::string_view::npos; }
bool isSubDelim(char c) { return std::string_view("!$&'()*+,;=").find(c) != std::string_view::npos; }

// Every character is allowed by `allowed` or starts a well-formed %XX escape.
template <class Allowed>
bool isEncoded(std::string_view text, Allowed allowed) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%') {
            if (i + 2 >= text.size()) return false;
            if (!isHex(text[i + 1]) || !isHex(text[i + 2])) return false;
            i += 2;
        } else if (!allowed(text[i])) {
            return false;
        }
    }
    return true;
}

bool isPathChar(char c) { return isUnreserved(c) || isSubDelim(c) || c == ':' || c == '@' || c == '/'; }
bool isQueryChar(char c) { return isPathChar(c) || c == '?'; }
bool isHostChar(char c) { return isUnreserved(c) || isSubDelim(c); }

bool isSchemeName(std::string_view text) {
    if (text.empty() || !isAlpha(text[0])) return false;
    for (char c : text) {
        if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return false;
    }
    return true;
}

Error badURL() { return PublicIPError::badURL().toError(); }

}  // namespace

Result<LookupURL> parseLookupURL(std::string_view url) {
    const auto colon = url.find(':');
    if (colon == std::string_view::npos || !isSchemeName(url.substr(0, colon))) return badURL();
    const std::string_view scheme = url.substr(0, colon);
    LookupURL result;
    // Exact match: the scheme decides TLS, so "HTTPS" is refused rather than guessed.
    if (scheme == "https") {
        result.tls = true;
        result.port = 443;
    } else if (scheme == "http") {
        result.port = 80;
    } else {
        return badURL();
    }

    std::string_view rest = url.substr(colon + 1);
    if (!rest.starts_with("//")) return badURL();
    rest.remove_prefix(2);
    const auto authorityEnd = rest.find_first_of("/?#");
    std::string_view authority = rest.substr(0, authorityEnd);
    rest = authorityEnd == std::string_view::npos ? std::string_view{} : rest.substr(authorityEnd);

    if (const auto at = authority.rfind('@'); at != std::string_view::npos) authority.remove_prefix(at + 1);
    std::string_view portText;
    if (authority.starts_with('[')) {
        const auto close = authority.find(']');
        if (close == std::string_view::npos) return badURL();
        result.host = std::string(authority.substr(1, close - 1));
        in6_addr address;
        if (inet_pton(AF_INET6, result.host.c_str(), &address) != 1) return badURL();
        std::string_view after = authority.substr(close + 1);
        if (!after.empty()) {
            if (after[0] != ':') return badURL();
            portText = after.substr(1);
        }
    } else {
        const auto portColon = authority.find(':');
        const std::string_view host = authority.substr(0, portColon);
        if (!isEncoded(host, isHostChar)) return badURL();
        result.host = std::string(host);
        if (portColon != std::string_view::npos) portText = authority.substr(portColon + 1);
    }
    if (result.host.empty()) return badURL();
    if (!portText.empty()) {
        unsigned port = 0;
        const auto [end, ec] = std::from_chars(portText.data(), portText.data() + portText.size(), port);
        if (ec != std::errc{} || end != portText.data() + portText.size() || port > 65535 ||
            !isDigit(portText[0])) {
            return badURL();
        }
        result.port = static_cast<std::uint16_t>(port);
    }

    const auto fragment = rest.find('#');
    if (fragment != std::string_view::npos) rest = rest.substr(0, fragment);
    const auto question = rest.find('?');
    const std::string_view path = rest.substr(0, question);
    const std::string_view query =
        question == std::string_view::npos ? std::string_view{} : rest.substr(question + 1);
    if (!isEncoded(path, isPathChar) || !isEncoded(query, isQueryChar)) return badURL();
    result.target = path.empty() ? "/" : std::string(path);
    if (question != std::string_view::npos) {
        result.target += '?';
        result.target += query;
    }
    return result;
}

std::string requestText(const LookupURL& url) {
    // The Host header never names the port; an IPv6 literal keeps its brackets
    // there because a bare one would not be a valid header value.
    const bool literal6 = url.host.find(':') != std::string::npos;
    std::string host = literal6 ? "[" + url.host + "]" : url.host;
    return "GET " + url.target + " HTTP/1.1\r\nHost: " + host +
           "\r\nUser-Agent: Netvane\r\nAccept: */*\r\nConnection: close\r\n\r\n";
}

}  // namespace netvane::PublicIPService
