#include <gtest/gtest.h>

#include <set>

#include "admin_protocol/admin_constants.h"
#include "admin_protocol/admin_error.h"
#include "admin_protocol/admin_protocols.h"
#include "admin_protocol/token_digest.h"

namespace netvane {
namespace {

TEST(AdminConstants, WithoutTeamKeyFallsBackToPlaceholderTeam) {
    // This test binary embeds no Info.plist.
    EXPECT_EQ(AdminConstants::teamID(), "TEAMID0000");
    EXPECT_EQ(AdminConstants::appGroup(), "TEAMID0000.com.tarnwick.Netvane");
    EXPECT_EQ(AdminConstants::appServiceName(), "TEAMID0000.com.tarnwick.Netvane.admin");
    EXPECT_EQ(AdminConstants::controlServiceName(), "TEAMID0000.com.tarnwick.Netvane.admin-control");
    EXPECT_EQ(AdminConstants::daemonPlistPath(), "/Library/LaunchDaemons/com.tarnwick.Netvane.admin.plist");
    EXPECT_EQ(AdminConstants::teamIDFromInfo(plist::Dictionary{{"NVTeamID", 42}}), "TEAMID0000");
    EXPECT_EQ(AdminConstants::teamIDFromInfo(plist::Dictionary{{"NVTeamID", "ABCDE12345"}}), "ABCDE12345");
}

TEST(AdminConstants, RequirementTextsAreVerbatim) {
    EXPECT_EQ(AdminConstants::appRequirement("T\"X"),
              "(anchor apple generic and certificate leaf[field.1.2.840.113635.100.6.1.9] or anchor apple generic "
              "and certificate 1[field.1.2.840.113635.100.6.2.6] and certificate leaf[field.1.2.840.113635.100.6.1.13] "
              "and certificate leaf[subject.OU] = \"T\"X\") and identifier \"com.tarnwick.Netvane\"");
    EXPECT_EQ(AdminConstants::adminAppRequirement("ABCDE12345"),
              "anchor apple generic and certificate 1[field.1.2.840.113635.100.6.2.6] and certificate "
              "leaf[field.1.2.840.113635.100.6.1.13] and certificate leaf[subject.OU] = \"ABCDE12345\" and identifier "
              "\"com.tarnwick.Netvane.Admin\"");
}

TEST(AdminError, RawValuesCodesAndMessages) {
    EXPECT_FALSE(adminErrorFromRawValue(0));
    EXPECT_FALSE(adminErrorFromRawValue(8));
    EXPECT_FALSE(adminErrorFromRawValue(-1));
    EXPECT_EQ(adminErrorFromRawValue(3), AdminError::unknownRequest);
    EXPECT_EQ(toError(AdminError::unknownRequest),
              (Error{"com.tarnwick.Netvane.admin", 3, "The pairing request has expired"}));
    std::set<std::string_view> messages;
    for (std::int64_t code = 1; code <= 7; ++code) {
        const Error error = toError(*adminErrorFromRawValue(code));
        EXPECT_EQ(error.code, code);
        EXPECT_EQ(asAdminError(error), adminErrorFromRawValue(code));
        messages.insert(errorDescription(*adminErrorFromRawValue(code)));
    }
    EXPECT_EQ(messages.size(), 7u);
    EXPECT_EQ(errorDescription(AdminError::configurationFailed), "macOS refused the network configuration change");
    EXPECT_FALSE(asAdminError(Error{"NSPOSIXErrorDomain", 3, "No such process"}));
}

TEST(TokenDigest, ComparesLengthAndEveryByte) {
    const std::vector<std::uint8_t> empty, a(32, 7), shorter(31, 7);
    EXPECT_TRUE(TokenDigest::equal(empty, empty));
    EXPECT_TRUE(TokenDigest::equal(a, a));
    EXPECT_FALSE(TokenDigest::equal(a, shorter));
    for (std::size_t i : {0, 15, 31}) {
        auto b = a;
        b[i] ^= 0x80;
        EXPECT_FALSE(TokenDigest::equal(a, b)) << i;
    }
}

TEST(AdminProtocols, SelectorsInDeclarationOrder) {
    std::vector<std::string_view> app, control;
    for (const auto& m : AdminAppProtocol.methods) app.push_back(m.selector);
    for (const auto& m : AdminControlProtocol.methods) control.push_back(m.selector);
    EXPECT_EQ(app, (std::vector<std::string_view>{
                       "statusWithToken:reply:", "beginPairingWithReply:", "awaitPairingWithRequestID:reply:",
                       "setServiceEnabledWithServiceID:enabled:token:reply:", "unpairWithToken:reply:",
                       "tunnelOwnersWithReply:"}));
    EXPECT_EQ(control, (std::vector<std::string_view>{
                           "statusWithReply:", "pendingPairingsWithReply:",
                           "approvePairingWithRequestID:authorization:reply:", "denyPairingWithRequestID:reply:",
                           "unpairAllWithAuthorization:reply:"}));
    // Every selector names one argument per keyword before "reply:".
    for (const auto* protocol : {&AdminAppProtocol, &AdminControlProtocol}) {
        for (const auto& m : protocol->methods) {
            const auto colons = static_cast<std::size_t>(std::count(m.selector.begin(), m.selector.end(), ':'));
            EXPECT_EQ(m.arguments.size() + 1, colons) << m.selector;
            EXPECT_FALSE(m.reply.empty()) << m.selector;
        }
    }
    EXPECT_EQ(AdminAppProtocol.find("statusWithReply:"), nullptr) << "control selectors are not app selectors";
    ASSERT_NE(AdminControlProtocol.find("statusWithReply:"), nullptr);
}

TEST(AdminProtocols, ArgumentTypesAreChecked) {
    const plist::Value text("x"), number(1), bytes(plist::Data{1}), dicts(plist::Array{plist::Dictionary{}}),
        mixed(plist::Array{plist::Dictionary{}, 1});
    EXPECT_TRUE(acceptsValue(WireType::optionalString, nullptr));
    EXPECT_TRUE(acceptsValue(WireType::optionalString, &text));
    EXPECT_FALSE(acceptsValue(WireType::optionalString, &number));
    EXPECT_FALSE(acceptsValue(WireType::string, nullptr));
    EXPECT_FALSE(acceptsValue(WireType::boolean, &number));
    EXPECT_TRUE(acceptsValue(WireType::data, &bytes));
    EXPECT_FALSE(acceptsValue(WireType::data, &text));
    EXPECT_TRUE(acceptsValue(WireType::dictionaryArray, &dicts));
    EXPECT_FALSE(acceptsValue(WireType::dictionaryArray, &mixed));
    EXPECT_EQ(AdminStatusKey::protocolVersion, "protocol");
}

}  // namespace
}  // namespace netvane
