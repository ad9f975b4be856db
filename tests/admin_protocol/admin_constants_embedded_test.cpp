#include <gtest/gtest.h>

#include "admin_protocol/admin_constants.h"

namespace netvane {
namespace {

TEST(AdminConstants, DeriveServiceNamesFromTheEmbeddedTeam) {
    EXPECT_EQ(AdminConstants::teamID(), "TESTTEAM42");
    EXPECT_EQ(AdminConstants::appServiceName(), "TESTTEAM42.com.tarnwick.Netvane.admin");
    EXPECT_EQ(AdminConstants::controlServiceName(), "TESTTEAM42.com.tarnwick.Netvane.admin-control");
}

}  // namespace
}  // namespace netvane
