#include "netcore/sysconfig/interface_fingerprint.h"

#include <gtest/gtest.h>

namespace netvane {
namespace {

std::vector<std::string> keys(const plist::Value& value) {
    std::vector<std::string> result;
    for (const auto& entry : *value.dictionary()) result.push_back(entry.first);
    return result;
}

TEST(InterfaceFingerprint, EncodesOptionalsOnlyWhenPresent) {
    InterfaceFingerprint full{"k", "en0", "Ethernet", "00:11:22:33:44:55", true};
    EXPECT_EQ(keys(full.encode()), (std::vector<std::string>{"key", "name", "title", "address", "permanentAddress"}));
    InterfaceFingerprint bare{"k", "en0", std::nullopt, std::nullopt, false};
    EXPECT_EQ(keys(bare.encode()), (std::vector<std::string>{"key", "name", "permanentAddress"}));
    EXPECT_EQ(bare.encode().find("permanentAddress")->boolean(), false);

    EXPECT_EQ(*InterfaceFingerprint::decode(full.encode()), full);
    EXPECT_EQ(*InterfaceFingerprint::decode(bare.encode()), bare);
}

TEST(InterfaceFingerprint, PermanentAddressDefaultsToFalse) {
    auto decoded = InterfaceFingerprint::decode(plist::Dictionary{{"key", "k"}, {"name", "en0"}});
    ASSERT_TRUE(decoded.ok());
    EXPECT_FALSE(decoded->permanentAddress);
    EXPECT_EQ(decoded->title, std::nullopt);
}

TEST(InterfaceFingerprint, RequiredOrMistypedFieldsAreDecodeErrors) {
    EXPECT_FALSE(InterfaceFingerprint::decode(plist::Dictionary{{"name", "en0"}}).ok());
    EXPECT_FALSE(InterfaceFingerprint::decode(plist::Dictionary{{"key", "k"}}).ok());
    EXPECT_FALSE(InterfaceFingerprint::decode(plist::Dictionary{{"key", 1}, {"name", "en0"}}).ok());
    EXPECT_FALSE(InterfaceFingerprint::decode(plist::Dictionary{{"key", "k"}, {"name", "en0"}, {"title", 3}}).ok());
    EXPECT_FALSE(
        InterfaceFingerprint::decode(plist::Dictionary{{"key", "k"}, {"name", "en0"}, {"permanentAddress", "yes"}}).ok());
    EXPECT_FALSE(InterfaceFingerprint::decode(plist::Value("k")).ok());
}

TEST(InterfaceFingerprint, HashFollowsEquality) {
    std::hash<InterfaceFingerprint> hash;
    InterfaceFingerprint a{"k", "en0", std::nullopt, "x", false};
    InterfaceFingerprint b{"k", "en0", "x", std::nullopt, false};
    EXPECT_NE(a, b);
    EXPECT_NE(hash(a), hash(b));
    EXPECT_EQ(hash(a), hash(InterfaceFingerprint{"k", "en0", std::nullopt, "x", false}));
}

}  // namespace
}  // namespace netvane
