// The launchd job that starts the daemon on macOS, as configured for this
// build's team, against the constants the daemon and its clients use.
#include <gtest/gtest.h>

#include "admin_protocol/admin_constants.h"
#include "support/files.h"
#include "support/plist/plist.h"

namespace netvane {
namespace {

TEST(LaunchdJob, NamesTheDaemonAndBothServicesOfTheTeam) {
    const std::string path = NETVANE_LAUNCHD_JOB;
    // Installed as /Library/LaunchDaemons/<label>.plist under its own name.
    EXPECT_TRUE(AdminConstants::daemonPlistPath().ends_with(path.substr(path.rfind('/'))));

    auto bytes = readFile(path);
    ASSERT_TRUE(bytes) << bytes.error().message;
    auto job = plist::decode(*bytes);
    ASSERT_TRUE(job) << job.error().message;
    ASSERT_NE(job->find("Label"), nullptr);
    EXPECT_EQ(*job->find("Label"), plist::Value(AdminConstants::daemonLabel));
    const plist::Value* program = job->find("Program");
    ASSERT_TRUE(program != nullptr && program->string() != nullptr);
    EXPECT_TRUE(program->string()->ends_with("/" + std::string(AdminConstants::daemonIdentifier)));

    const plist::Value* services = job->find("MachServices");
    ASSERT_TRUE(services != nullptr && services->dictionary() != nullptr);
    EXPECT_EQ(*services->dictionary(), (plist::Dictionary{{AdminConstants::appServiceName(), true},
                                                          {AdminConstants::controlServiceName(), true}}));
}

}  // namespace
}  // namespace netvane
