#include <gtest/gtest.h>

#include "netcore/publicip/http_exchange.h"
#include "netcore/publicip/json_body.h"

namespace netvane::PublicIPService {
namespace {

std::optional<std::string> extract(std::string_view body, std::optional<std::string> keyPath = std::nullopt) {
    return extractAddress({reinterpret_cast<const std::uint8_t*>(body.data()), body.size()}, keyPath);
}

TEST(IsIPAddress, AcceptsDottedQuadAndTextualIPv6) {
    for (const char* address : {"192.0.2.1", "0.0.0.0", "2001:db8::1", "::", "::ffff:192.0.2.1",
                                "2001:0db8:0000:0000:0000:ff00:0042:8329"}) {
        EXPECT_TRUE(isIPAddress(address)) << address;
    }
}

TEST(IsIPAddress, RefusesZonesBracketsAndNearMisses) {
    for (std::string_view text : {"fe80::1%eth0", "[2001:db8::1]", "192.0.2", "192.0.2.256", "1.2.3.4 ", " 1.2.3.4",
                                  "1.2.3.04x", "example.com", "", "2001:db8:::1"}) {
        EXPECT_FALSE(isIPAddress(text)) << text;
    }
    EXPECT_FALSE(isIPAddress(std::string_view("1.2.3.4\0junk", 12)));
    EXPECT_FALSE(isIPAddress(std::string(200, '1')));
}

TEST(ExtractAddress, PlainTextIsTrimmedOfWhiteSpaceAndLineBreaks) {
    EXPECT_EQ(extract(" 192.0.2.7\n"), "192.0.2.7");
    EXPECT_EQ(extract("\t2001:db8::7\r\n\r\n"), "2001:db8::7");
    EXPECT_EQ(extract("\xC2\xA0" "192.0.2.7\xE2\x80\xA8"), "192.0.2.7");  // no-break space, line separator
    // Plain text wins whatever the key path says.
    EXPECT_EQ(extract("192.0.2.7\n", "data.ip"), "192.0.2.7");
    EXPECT_EQ(extract("192.0.2.7 and more"), std::nullopt);
    EXPECT_EQ(extract("\xFF" "192.0.2.7"), std::nullopt);
    EXPECT_EQ(extract(""), std::nullopt);
}

TEST(ExtractAddress, JSONFallbackKeysInOrder) {
    EXPECT_EQ(extract(R"({"ip": "2001:db8::9"})"), "2001:db8::9");
    EXPECT_EQ(extract(R"({"origin": "192.0.2.1", "query": "192.0.2.2"})"), "192.0.2.2");
    EXPECT_EQ(extract(R"({"ip": "not one", "ipAddress": "192.0.2.3"})"), "192.0.2.3");
    EXPECT_EQ(extract(R"({"ip": 19216801, "address": ["192.0.2.4"], "origin": "192.0.2.5"})"), "192.0.2.5");
    EXPECT_EQ(extract(R"({"IP": "192.0.2.6"})"), std::nullopt);
}

TEST(ExtractAddress, JSONValuesAreTakenAsTheyStand) {
    EXPECT_EQ(extract(R"({"ip": " 192.0.2.1"})"), std::nullopt);
    EXPECT_EQ(extract(R"({"ip": "192.0.2.1\n"})"), std::nullopt);
    EXPECT_EQ(extract(R"({"ip": "\u0031\u0039\u0032.0.2.1"})"), "192.0.2.1");
}

TEST(ExtractAddress, KeyPathWalksNestedObjects) {
    const std::string body = R"({"data": {"ip": "192.0.2.8", "inner": {"v6": "2001:db8::8"}}, "ip": "192.0.2.9"})";
    EXPECT_EQ(extract(body, "data.ip"), "192.0.2.8");
    EXPECT_EQ(extract(body, "data.inner.v6"), "2001:db8::8");
    EXPECT_EQ(extract(body, ".data..ip."), "192.0.2.8");
    EXPECT_EQ(extract(body, "data"), std::nullopt);
    EXPECT_EQ(extract(body, "data.missing"), std::nullopt);
    EXPECT_EQ(extract(body, "data.ip.more"), std::nullopt);
    // An empty key path means none: the fallback keys apply.
    EXPECT_EQ(extract(body, ""), "192.0.2.9");
    EXPECT_EQ(extract(R"([{"ip": "192.0.2.1"}])", "0.ip"), std::nullopt);
}

TEST(ExtractAddress, NonObjectsAndBrokenJSONYieldNothing) {
    for (const char* body : {R"("192.0.2.1")", R"(["192.0.2.1"])", R"({"ip": "192.0.2.1")", R"({"ip": "192.0.2.1",})",
                             R"({'ip': '192.0.2.1'})", R"({"ip": "192.0.2.1"} x)", "{\"ip\": \"192.0.2.1\x01\"}"}) {
        EXPECT_EQ(extract(body), std::nullopt) << body;
    }
}

TEST(ParseJSON, FollowsTheStandardGrammar) {
    auto parses = [](std::string_view text) {
        return parseJSON({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}).has_value();
    };
    EXPECT_TRUE(parses(R"({"a": [1, -0.5e+3, true, false, null, {"b": "\"\\\/\b\f\n\r\t"}]})"));
    EXPECT_TRUE(parses("\xEF\xBB\xBF{}"));
    EXPECT_TRUE(parses(R"({"s": "\ud83d\ude00"})"));
    for (const char* bad : {"", "{", "[1,]", "[01]", "[1.]", "[.5]", "[-]", "[1e]", "[tru]", "[nul]", R"(["\x"])",
                            R"(["\ud83d"])", R"(["\ude00"])", R"(["\u12G4"])", "[\"\xC0\xAF\"]", "{\"a\" 1}", "{1: 2}",
                            "[1 2]", "1", "\"x\""}) {
        EXPECT_FALSE(parses(bad)) << bad;
    }
}

TEST(ParseJSON, DuplicateKeysKeepTheLastAndDepthIsBounded) {
    const std::string duplicate = R"({"ip": "192.0.2.1", "ip": "192.0.2.2"})";
    EXPECT_EQ(extract(duplicate), "192.0.2.2");

    const std::string deep = std::string(kMaxJSONDepth, '[') + std::string(kMaxJSONDepth, ']');
    const std::string tooDeep = "[" + deep + "]";
    auto parses = [](const std::string& text) {
        return parseJSON({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}).has_value();
    };
    EXPECT_TRUE(parses(deep));
    EXPECT_FALSE(parses(tooDeep));
}

}  // namespace
}  // namespace netvane::PublicIPService
