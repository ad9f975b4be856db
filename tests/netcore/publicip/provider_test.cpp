#include <gtest/gtest.h>

#include <unordered_set>

#include "netcore/publicip/public_ip.h"

namespace netvane {
namespace {

using namespace PublicIPProviders;

TEST(PublicIPProvider, AllCasesInDeclarationOrderWithRawValues) {
    ASSERT_EQ(allCases.size(), 3u);
    EXPECT_EQ(rawValue(allCases[0]), "echoPrimary");
    EXPECT_EQ(rawValue(allCases[1]), "echoSecondary");
    EXPECT_EQ(rawValue(allCases[2]), "custom");
    for (PublicIPProvider provider : allCases) EXPECT_EQ(id(provider), rawValue(provider));
}

TEST(PublicIPProvider, BuiltInsAskForIpOverHttpsOnTheirHost) {
    for (PublicIPProvider provider : {PublicIPProvider::echoPrimary, PublicIPProvider::echoSecondary}) {
        const auto address = url(provider);
        ASSERT_TRUE(address.has_value());
        EXPECT_EQ(*address, "https://" + std::string(title(provider)) + "/ip");
    }
    EXPECT_NE(title(PublicIPProvider::echoPrimary), title(PublicIPProvider::echoSecondary));
}

TEST(PublicIPProvider, CustomHasFixedTitleAndNoURL) {
    const auto custom = fromRawValue("custom");
    ASSERT_EQ(custom, PublicIPProvider::custom);
    EXPECT_EQ(title(*custom), "Custom URL");
    EXPECT_FALSE(url(*custom).has_value());
}

TEST(PublicIPProvider, RawValueMatchIsExact) {
    EXPECT_FALSE(fromRawValue("Custom").has_value());
    EXPECT_FALSE(fromRawValue("echoprimary").has_value());
    EXPECT_FALSE(fromRawValue(" custom").has_value());
    EXPECT_FALSE(fromRawValue("").has_value());
    EXPECT_EQ(fromRawValue("echoSecondary"), PublicIPProvider::echoSecondary);
}

TEST(PublicIPProvider, CodesAsSingleRawValueString) {
    EXPECT_EQ(encode(PublicIPProvider::echoSecondary), plist::Value("echoSecondary"));
    const auto decoded = decode(plist::Value("echoSecondary"));
    ASSERT_TRUE(decoded.ok());
    EXPECT_EQ(*decoded, PublicIPProvider::echoSecondary);

    const auto unknown = decode(plist::Value("other"));
    ASSERT_FALSE(unknown.ok());
    EXPECT_EQ(unknown.error().domain, kCocoaErrorDomain);
    EXPECT_FALSE(decode(plist::Value(std::int64_t{1})).ok());
}

TEST(PublicIPProvider, HashFollowsRawValue) {
    std::unordered_set<PublicIPProvider> set(allCases.begin(), allCases.end());
    set.insert(PublicIPProvider::custom);
    EXPECT_EQ(set.size(), 3u);
    EXPECT_EQ(std::hash<PublicIPProvider>{}(PublicIPProvider::custom), std::hash<std::string_view>{}("custom"));
}

TEST(PublicIPError, DescriptionsAreTheUserFacingTexts) {
    EXPECT_EQ(PublicIPError::http(503).errorDescription(), "The server answered HTTP 503");
    EXPECT_EQ(PublicIPError::http(0).errorDescription(), "The server answered HTTP 0");
    EXPECT_EQ(PublicIPError::http(-7).errorDescription(), "The server answered HTTP -7");
    EXPECT_EQ(PublicIPError::badURL().errorDescription(), "The lookup URL isn't valid");
    EXPECT_EQ(PublicIPError::malformed().errorDescription(), "The server's response couldn't be read");
    EXPECT_EQ(PublicIPError::noAddress().errorDescription(), "The response has no IP address");
}

TEST(PublicIPError, ConvertsToErrorWithItsDescription) {
    const Error error = PublicIPError::http(301).toError();
    EXPECT_EQ(error.domain, kPublicIPErrorDomain);
    EXPECT_EQ(error.message, "The server answered HTTP 301");
    EXPECT_NE(PublicIPError::badURL().toError().code, PublicIPError::malformed().toError().code);
}

TEST(PublicIPResult, EqualityComparesEveryField) {
    const PublicIPResult a{"192.0.2.1", std::nullopt, std::nullopt};
    EXPECT_EQ(a, (PublicIPResult{"192.0.2.1", std::nullopt, std::nullopt}));
    EXPECT_NE(a, (PublicIPResult{"192.0.2.1", std::nullopt, "x"}));
    EXPECT_NE(a, (PublicIPResult{"192.0.2.1", "2001:db8::1", std::nullopt}));
}

}  // namespace
}  // namespace netvane
