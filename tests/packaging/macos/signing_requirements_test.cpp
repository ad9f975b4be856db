// What the macOS install scripts take from the daemon: the code-signing
// requirements that sign.sh checks each client against must be the very
// texts the daemon sets on its services, and the pair right's rule must read
// back with our plist codec as an administrator rule with a timeout.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "admin_protocol/admin_constants.h"
#include "support/files.h"
#include "support/plist/plist.h"

namespace netvane {
namespace {

constexpr std::string_view kTeam = "ABCDE12345";

// The requirement common.sh gives for a program signed as `identifier`.
std::string scriptRequirement(std::string_view identifier) {
    const std::string command = "bash -c '. \"$0\" && nv_requirement \"$1\" \"$2\"' \"" NETVANE_MACOS_SCRIPTS
                                "/common.sh\" " + std::string(identifier) + " " + std::string(kTeam);
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) return "(popen failed)";
    std::string text;
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) text += buffer;
    if (::pclose(pipe) != 0) return "(failed: " + text + ")";
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

// codesign takes requirement text, rather than a file, after "=". (Built by
// appending: GCC 12 at -O3 misreads "=" + a temporary as an overlapping copy.)
std::string asText(const std::string& requirement) {
    std::string text = "=";
    text += requirement;
    return text;
}

TEST(MacSigning, ChecksEachClientAgainstTheRequirementOfItsService) {
    EXPECT_EQ(scriptRequirement(AdminConstants::appBundleID), asText(AdminConstants::appRequirement(kTeam)));
    EXPECT_EQ(scriptRequirement(AdminConstants::adminAppBundleID), asText(AdminConstants::adminAppRequirement(kTeam)));
}

TEST(MacSigning, ChecksTheDaemonForTheTeamsDeveloperID) {
    // The daemon's own requirement is the control role's with its identifier.
    std::string expected = asText(AdminConstants::adminAppRequirement(kTeam));
    expected.replace(expected.rfind(AdminConstants::adminAppBundleID), AdminConstants::adminAppBundleID.size(),
                     AdminConstants::daemonIdentifier);
    EXPECT_EQ(scriptRequirement(AdminConstants::daemonIdentifier), expected);
    EXPECT_EQ(scriptRequirement("com.example.other").substr(0, 8), "(failed:");
}

TEST(MacPairRight, RuleReadsBackAsAnAdministratorRuleWithATimeout) {
    auto bytes = readFile(NETVANE_MACOS_SCRIPTS "/" + std::string(AdminConstants::pairRight) + ".plist");
    ASSERT_TRUE(bytes) << bytes.error().message;
    auto rule = plist::decode(*bytes);
    ASSERT_TRUE(rule) << rule.error().message;
    EXPECT_EQ(*rule->find("class"), plist::Value("user"));
    EXPECT_EQ(*rule->find("group"), plist::Value("admin"));
    EXPECT_EQ(*rule->find("shared"), plist::Value(false));
    const plist::Value* timeout = rule->find("timeout");
    ASSERT_TRUE(timeout != nullptr && timeout->int64());
    EXPECT_GT(*timeout->int64(), 0);
    EXPECT_LE(*timeout->int64(), 300);
}

}  // namespace
}  // namespace netvane
