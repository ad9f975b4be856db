#include <arpa/inet.h>

#include <algorithm>
#include <array>

#include "netcore/publicip/http_exchange.h"
#include "netcore/publicip/json_body.h"

namespace netvane::PublicIPService {
namespace {

// White space and line breaks in UTF-8: the separators (Zs, Zl, Zp), the
// ASCII controls TAB to CR, and NEL.
constexpr std::array<std::string_view, 25> kWhitespace = {
    " ",  "\t", "\n", "\v", "\f", "\r",
    "\xC2\x85",      // NEL
    "\xC2\xA0",      // no-break space
    "\xE1\x9A\x80",  // ogham space mark
    "\xE2\x80\x80", "\xE2\x80\x81", "\xE2\x80\x82", "\xE2\x80\x83", "\xE2\x80\x84", "\xE2\x80\x85",
    "\xE2\x80\x86", "\xE2\x80\x87", "\xE2\x80\x88", "\xE2\x80\x89", "\xE2\x80\x8A",  // en quad .. hair space
    "\xE2\x80\xA8",  // line separator
    "\xE2\x80\xA9",  // paragraph separator
    "\xE2\x80\xAF",  // narrow no-break space
    "\xE2\x81\x9F",  // medium mathematical space
    "\xE3\x80\x80",  // ideographic space
};

// Encoded forms are whole sequences, so matching them at either end never
// splits a character of valid text; invalid bytes are never white space.
std::string_view trimWhitespace(std::string_view text) {
    for (bool trimmed = true; trimmed && !text.empty();) {
        trimmed = false;
        for (std::string_view space : kWhitespace) {
            if (text.starts_with(space)) {
                text.remove_prefix(space.size());
                trimmed = true;
            }
            if (text.ends_with(space)) {
                text.remove_suffix(space.size());
                trimmed = true;
            }
        }
    }
    return text;
}

std::optional<std::string> addressString(const JSONValue* value) {
    if (value && value->kind == JSONValue::Kind::string && isIPAddress(value->string)) return value->string;
    return std::nullopt;
}

constexpr std::array<std::string_view, 6> kAddressKeys = {"ip", "ip_addr", "address", "query", "ipAddress", "origin"};

}  // namespace

bool isIPAddress(std::string_view text) {
    // The longest textual form inet_pton accepts is 45 characters; an
    // embedded NUL would hide the rest of the text from it.
    char buffer[64];
    if (text.size() >= sizeof buffer || text.find('\0') != std::string_view::npos) return false;
    std::copy(text.begin(), text.end(), buffer);
    buffer[text.size()] = '\0';
    unsigned char address[sizeof(in6_addr)];
    return inet_pton(AF_INET, buffer, address) == 1 || inet_pton(AF_INET6, buffer, address) == 1;
}

std::optional<std::string> extractAddress(std::span<const std::uint8_t> body,
                                          const std::optional<std::string>& jsonKeyPath) {
    const std::string_view text(reinterpret_cast<const char*>(body.data()), body.size());
    if (const std::string_view trimmed = trimWhitespace(text); isIPAddress(trimmed)) return std::string(trimmed);

    const auto json = parseJSON(body);
    if (!json) return std::nullopt;

    if (jsonKeyPath && !jsonKeyPath->empty()) {
        const JSONValue* current = &*json;
        std::string_view path = *jsonKeyPath;
        while (!path.empty()) {
            const auto dot = path.find('.');
            const std::string_view piece = path.substr(0, dot);
            path = dot == std::string_view::npos ? std::string_view{} : path.substr(dot + 1);
            if (piece.empty()) continue;
            if (current->kind != JSONValue::Kind::object) return std::nullopt;
            current = current->member(piece);
            if (!current) return std::nullopt;
        }
        return addressString(current);
    }

    if (json->kind != JSONValue::Kind::object) return std::nullopt;
    for (std::string_view key : kAddressKeys) {
        if (auto address = addressString(json->member(key))) return address;
    }
    return std::nullopt;
}

}  // namespace netvane::PublicIPService
