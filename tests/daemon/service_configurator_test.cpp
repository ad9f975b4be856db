#include "daemon/service_configurator.h"

#include <gtest/gtest.h>

#include "admin_protocol/admin_error.h"
#include "tests/daemon/fakes.h"

namespace netvane {
namespace {

using testing::FakeNetworkPreferences;
using Journal = std::vector<std::string>;

std::optional<AdminError> codeOf(const Status& status) {
    return status ? std::nullopt : asAdminError(status.error());
}

plist::Value interfaceEntity(plist::Value hidden) {
    return plist::Dictionary{{"DeviceName", "en0"}, {"HiddenConfiguration", std::move(hidden)}};
}

class ServiceConfiguratorTest : public ::testing::Test {
protected:
    void SetUp() override {
        preferences_.addService("WIFI", {false, plist::Dictionary{{"DeviceName", "en0"}}});
    }
    FakeNetworkPreferences preferences_;
};

TEST_F(ServiceConfiguratorTest, EnablesCommitsAppliesAndUnlocksUnderTheDaemonsName) {
    EXPECT_TRUE(ServiceConfigurator::setEnabled(&preferences_, "WIFI", true).ok());
    EXPECT_EQ(preferences_.enabled("WIFI"), true);
    EXPECT_EQ(preferences_.journal(), (Journal{"open com.tarnwick.Netvane.admin", "lock", "hasService WIFI",
                                               "pathValue /NetworkServices/WIFI/Interface", "set WIFI 1", "commit",
                                               "apply", "unlock", "close"}));
}

TEST_F(ServiceConfiguratorTest, AlreadyInTheRequestedStateStillSetsCommitsAndApplies) {
    ASSERT_TRUE(ServiceConfigurator::setEnabled(&preferences_, "WIFI", false).ok());
    const Journal journal = preferences_.journal();
    EXPECT_EQ(std::count(journal.begin(), journal.end(), "set WIFI 0"), 1);
    EXPECT_EQ(std::count(journal.begin(), journal.end(), "commit"), 1);
    EXPECT_EQ(std::count(journal.begin(), journal.end(), "apply"), 1);
}

TEST_F(ServiceConfiguratorTest, NoBackendOrNoSessionIsAConfigurationFailure) {
    EXPECT_EQ(codeOf(ServiceConfigurator::setEnabled(nullptr, "WIFI", true)), AdminError::configurationFailed);

    preferences_.fail({.open = true});
    EXPECT_EQ(codeOf(ServiceConfigurator::setEnabled(&preferences_, "WIFI", true)),
              AdminError::configurationFailed);
    EXPECT_EQ(preferences_.journal(), (Journal{"open com.tarnwick.Netvane.admin"}));
}

TEST_F(ServiceConfiguratorTest, LockRefusedIsAConfigurationFailureWithoutUnlock) {
    preferences_.fail({.lock = true});
    EXPECT_EQ(codeOf(ServiceConfigurator::setEnabled(&preferences_, "WIFI", true)),
              AdminError::configurationFailed);
    EXPECT_EQ(preferences_.journal(), (Journal{"open com.tarnwick.Netvane.admin", "lock", "close"}));
}

TEST_F(ServiceConfiguratorTest, UnknownAndHiddenServicesAreUnknownAndLeftAlone) {
    preferences_.addService("HIDDEN", {true, interfaceEntity(true)});
    for (const char* id : {"NOPE", "HIDDEN"}) {
        SCOPED_TRACE(id);
        EXPECT_EQ(codeOf(ServiceConfigurator::setEnabled(&preferences_, id, false)), AdminError::unknownService);
        EXPECT_FALSE(preferences_.locked());
        EXPECT_EQ(preferences_.journal().back(), "close");
        EXPECT_EQ(preferences_.journal().end()[-2], "unlock");
    }
    EXPECT_EQ(preferences_.enabled("HIDDEN"), true);
    const Journal journal = preferences_.journal();
    EXPECT_EQ(std::count_if(journal.begin(), journal.end(), [](const std::string& s) { return s.starts_with("set"); }),
              0);
}

TEST_F(ServiceConfiguratorTest, OnlyABooleanTrueInAnInterfaceDictionaryHides) {
    preferences_.addService("FALSE", {false, interfaceEntity(false)});
    preferences_.addService("NUMBER", {false, interfaceEntity(1)});
    preferences_.addService("TEXT", {false, interfaceEntity("true")});
    preferences_.addService("NOT-A-DICTIONARY", {false, plist::Array{true}});
    preferences_.addService("NO-ENTITY", {false, std::nullopt});
    for (const char* id : {"FALSE", "NUMBER", "TEXT", "NOT-A-DICTIONARY", "NO-ENTITY"}) {
        SCOPED_TRACE(id);
        EXPECT_TRUE(ServiceConfigurator::setEnabled(&preferences_, id, true).ok());
        EXPECT_EQ(preferences_.enabled(id), true);
    }
}

TEST_F(ServiceConfiguratorTest, ARefusedStepStopsTheRestAndStillUnlocks) {
    struct Case {
        FakeNetworkPreferences::Failures failures;
        const char* lastStep;
    };
    for (const Case& c : {Case{{.lookup = true}, "hasService WIFI"}, Case{{.set = true}, "set WIFI 1"},
                          Case{{.commit = true}, "commit"}, Case{{.apply = true}, "apply"}}) {
        SCOPED_TRACE(c.lastStep);
        FakeNetworkPreferences preferences;
        preferences.addService("WIFI", {});
        preferences.fail(c.failures);
        std::string reason;
        EXPECT_EQ(codeOf(ServiceConfigurator::setEnabled(&preferences, "WIFI", true, &reason)),
                  AdminError::configurationFailed)
            << "a store that cannot answer is no verdict on the service";
        EXPECT_NE(reason.find("refused"), std::string::npos) << reason;
        const Journal journal = preferences.journal();
        ASSERT_GE(journal.size(), 3u);
        EXPECT_EQ(journal.end()[-3], c.lastStep);
        EXPECT_EQ(journal.end()[-2], "unlock");
        EXPECT_EQ(journal.end()[-1], "close");
    }
}

TEST_F(ServiceConfiguratorTest, ImplausibleIDsAreUnknownWithoutALookup) {
    for (const std::string& id : std::vector<std::string>{"", "../Interface", "WIFI/Interface", "A B", std::string(65, 'A'), "WIFI\n"}) {
        EXPECT_EQ(codeOf(ServiceConfigurator::setEnabled(&preferences_, id, false)), AdminError::unknownService) << id;
    }
    for (const std::string& step : preferences_.journal()) {
        EXPECT_EQ(step.rfind("hasService", 0), std::string::npos) << step;
        EXPECT_EQ(step.rfind("pathValue", 0), std::string::npos) << step;
    }
    EXPECT_FALSE(preferences_.locked());
    EXPECT_EQ(preferences_.enabled("WIFI"), false);
}

}  // namespace
}  // namespace netvane
