#include "netcore/sysconfig/system_configuration_reader.h"

#include <gtest/gtest.h>

#include <unordered_set>

#include "tests/netcore/sysconfig/fakes.h"

namespace netvane {
namespace {

using testing::FakeDynamicStores;
using testing::FakeInterfaceList;
using testing::FakeNetworkPreferences;

NetworkInterface named(std::optional<std::string> bsdName, std::vector<NetworkInterface> underlying = {}) {
    NetworkInterface interface;
    interface.bsdName = std::move(bsdName);
    interface.underlying = std::move(underlying);
    return interface;
}

PreferencesService service(std::optional<std::string> id, std::optional<std::string> name, bool enabled,
                           std::optional<NetworkInterface> interface) {
    return PreferencesService{std::move(id), std::move(name), enabled, std::move(interface)};
}

plist::Value hiddenEntity(bool hidden) { return plist::Dictionary{{"HiddenConfiguration", hidden}}; }

std::vector<std::string> idsOf(const NetworkMetadata& metadata) {
    std::vector<std::string> ids;
    for (const NetworkService& s : metadata.services) ids.push_back(s.id);
    return ids;
}

class SystemConfigurationReaderTest : public ::testing::Test {
protected:
    NetworkMetadata read(bool withStore = true) {
        return SystemConfigurationReader::read(
            SystemConfigurationSources{&interfaces_, &preferences_, withStore ? &stores_ : nullptr});
    }

    FakeInterfaceList interfaces_;
    FakeNetworkPreferences preferences_;
    FakeDynamicStores stores_;
};

TEST_F(SystemConfigurationReaderTest, ServicesFollowTheOrderWithVisibleOnesFirst) {
    preferences_.addService("HIDDEN-FIRST", {true, hiddenEntity(true)});
    preferences_.addService("SHOWN", {true, hiddenEntity(false)});
    preferences_.setCurrentSet(
        std::vector{service("UNRANKED-1", "u1", true, std::nullopt), service("HIDDEN-FIRST", "h", true, std::nullopt),
                    service("B", "b", true, std::nullopt), service(std::nullopt, "no id", true, std::nullopt),
                    service("UNRANKED-2", "u2", true, std::nullopt), service("SHOWN", "s", true, std::nullopt),
                    service("A", "a", true, std::nullopt)},
        // "A" is listed twice: its first position counts, so it ranks before "B".
        std::vector<std::string>{"HIDDEN-FIRST", "A", "B", "A", "SHOWN", "GONE"});

    const NetworkMetadata metadata = read();
    EXPECT_EQ(idsOf(metadata), (std::vector<std::string>{"A", "B", "SHOWN", "UNRANKED-1", "UNRANKED-2", "HIDDEN-FIRST"}));
    EXPECT_TRUE(metadata.services.back().hidden);
    EXPECT_FALSE(metadata.services[2].hidden) << "a boolean false does not hide";
}

TEST_F(SystemConfigurationReaderTest, ServiceFieldsComeFromTheStoreWithTheirFallbacks) {
    preferences_.setCurrentSet(
        std::vector{service("PPP", std::nullopt, false, named(std::nullopt, {named(std::nullopt, {named("en0")})})),
                    service("VPN", "Office", true, named(std::nullopt)),
                    service("LAN", "Wired", true, named("en1", {named("en9")}))},
        std::nullopt);

    const NetworkMetadata metadata = read();
    ASSERT_EQ(metadata.services.size(), 3u);
    EXPECT_EQ(metadata.services[0], (NetworkService{"PPP", "PPP", false, "en0", false}))
        << "the id stands in for a missing name; the first BSD name down the chain counts";
    EXPECT_EQ(metadata.services[1], (NetworkService{"VPN", "Office", true, std::nullopt, false}));
    EXPECT_EQ(metadata.services[2].bsdName, "en1") << "the top of the chain wins";
}

TEST_F(SystemConfigurationReaderTest, TransientServicesFollowAndNeverShadowConfiguredOnes) {
    preferences_.setCurrentSet(std::vector{service("SAME", "Configured", true, named("en0"))}, std::nullopt);
    auto entity = [](plist::Dictionary fields) { return plist::Value(std::move(fields)); };
    stores_.set("Setup:/Network/Service/SAME/Interface", entity({{"DeviceName", "utun9"}}));
    stores_.set("Setup:/Network/Service/Z-VPN/Interface", entity({{"DeviceName", "utun3"},
                                                                   {"UserDefinedName", "Work VPN"},
                                                                   {"HiddenConfiguration", true}}));
    stores_.set("Setup:/Network/Service/A-VPN/Interface", entity({{"DeviceName", "utun4"}, {"UserDefinedName", 7}}));
    stores_.set("Setup:/Network/Service/NO-DEVICE/Interface", entity({{"UserDefinedName", "x"}}));
    stores_.set("Setup:/Network/Service/NOT-A-DICT/Interface", plist::Array{"utun5"});
    stores_.set("Setup:/Network/Service/Z-VPN", entity({{"__INACTIVE__", false}}));
    stores_.set("Setup:/Network/Service/A-VPN", "not a dictionary");

    const NetworkMetadata metadata = read();
    EXPECT_EQ(idsOf(metadata), (std::vector<std::string>{"SAME", "A-VPN", "Z-VPN"}));
    EXPECT_EQ(metadata.services[0].bsdName, "en0");
    EXPECT_EQ(metadata.services[1], (NetworkService{"A-VPN", "utun4", true, "utun4", false}))
        << "a name that is no string falls back to the device; a setup that is no dictionary means enabled";
    EXPECT_EQ(metadata.services[2], (NetworkService{"Z-VPN", "Work VPN", false, "utun3", true}))
        << "\"__INACTIVE__\" disables whatever its value";
}

TEST_F(SystemConfigurationReaderTest, TunnelsTakeTheInterfaceTheirRunningServiceReports) {
    preferences_.setCurrentSet(std::vector{service("V4", "a", true, named(std::nullopt)),
                                           service("V6", "b", true, std::nullopt),
                                           service("BAD-V4", "c", true, std::nullopt),
                                           service("WIRED", "d", true, named("en0")),
                                           service("DOWN", "e", true, std::nullopt)},
                               std::nullopt);
    stores_.set("State:/Network/Service/V4/IPv4", plist::Dictionary{{"InterfaceName", "utun1"}});
    stores_.set("State:/Network/Service/V4/IPv6", plist::Dictionary{{"InterfaceName", "utun9"}});
    stores_.set("State:/Network/Service/V6/IPv6", plist::Dictionary{{"InterfaceName", "utun2"}});
    stores_.set("State:/Network/Service/BAD-V4/IPv4", plist::Dictionary{{"InterfaceName", 3}});
    stores_.set("State:/Network/Service/BAD-V4/IPv6", plist::Dictionary{{"InterfaceName", "utun3"}});
    stores_.set("State:/Network/Service/WIRED/IPv4", plist::Dictionary{{"InterfaceName", "bridge0"}});

    const NetworkMetadata metadata = read();
    std::vector<std::optional<std::string>> names;
    for (const NetworkService& s : metadata.services) names.push_back(s.bsdName);
    EXPECT_EQ(names, (std::vector<std::optional<std::string>>{"utun1", "utun2", "utun3", "en0", std::nullopt}));
}

TEST_F(SystemConfigurationReaderTest, PrimariesAreStringsUnderPrimaryInterface) {
    stores_.set("State:/Network/Global/IPv4", plist::Dictionary{{"PrimaryInterface", "en0"}, {"Router", "10.0.0.1"}});
    stores_.set("State:/Network/Global/IPv6", plist::Dictionary{{"PrimaryInterface", false}});
    NetworkMetadata metadata = read();
    EXPECT_EQ(metadata.primaryIPv4Interface, "en0");
    EXPECT_EQ(metadata.primaryIPv6Interface, std::nullopt);

    stores_.set("State:/Network/Global/IPv4", plist::Array{"en0"});
    stores_.set("State:/Network/Global/IPv6", plist::Dictionary{{"PrimaryInterface", "en1"}});
    metadata = read();
    EXPECT_EQ(metadata.primaryIPv4Interface, std::nullopt);
    EXPECT_EQ(metadata.primaryIPv6Interface, "en1");
    EXPECT_EQ(stores_.names(), (std::vector<std::string>{"Netvane", "Netvane"}));
    EXPECT_EQ(preferences_.journal().front(), "open Netvane");
}

TEST_F(SystemConfigurationReaderTest, InterfacesAreKeyedByBSDNameAndTheLastOneWins) {
    NetworkInterface first = named("en0");
    first.displayName = "Ethernet";
    NetworkInterface second = named("en0");
    second.displayName = "USB LAN";
    second.interfaceType = "Ethernet";
    second.hardwareAddress = "02:00:00:00:00:01";
    NetworkInterface nameless = named(std::nullopt);
    nameless.displayName = "Bluetooth";
    interfaces_ = FakeInterfaceList(std::vector{first, nameless, second, named("en1")});

    const NetworkMetadata metadata = read();
    ASSERT_EQ(metadata.interfaces.size(), 2u);
    EXPECT_EQ(metadata.interfaces.at("en0"),
              (InterfaceMetadata{"en0", "USB LAN", "Ethernet", "02:00:00:00:00:01"}));
    EXPECT_EQ(metadata.interfaces.at("en1"), (InterfaceMetadata{"en1", std::nullopt, std::nullopt, std::nullopt}));
}

TEST_F(SystemConfigurationReaderTest, EachMissingPieceTakesOnlyWhatDependsOnIt) {
    preferences_.setCurrentSet(std::vector{service("WIRED", "w", true, named("en0"))}, std::nullopt);
    stores_.set("Setup:/Network/Service/VPN/Interface", plist::Dictionary{{"DeviceName", "utun1"}});
    stores_.set("State:/Network/Global/IPv4", plist::Dictionary{{"PrimaryInterface", "en0"}});

    NetworkMetadata metadata = read(/*withStore=*/false);
    EXPECT_EQ(idsOf(metadata), std::vector<std::string>{"WIRED"}) << "no store: no transient services";
    EXPECT_FALSE(metadata.primaryIPv4Interface);

    stores_.failCreate();
    EXPECT_EQ(read(), metadata) << "a store that cannot be created is the same as none";

    FakeDynamicStores working;
    working.set("Setup:/Network/Service/VPN/Interface", plist::Dictionary{{"DeviceName", "utun1"}});
    working.answerCopyMultipleWith(plist::Value(plist::Array{}));
    metadata = SystemConfigurationReader::read({&interfaces_, &preferences_, &working});
    EXPECT_EQ(idsOf(metadata), std::vector<std::string>{"WIRED"}) << "a multiple copy that is no dictionary";

    preferences_.setCurrentSet(std::nullopt, std::vector<std::string>{"WIRED"});
    EXPECT_TRUE(SystemConfigurationReader::read({&interfaces_, &preferences_, &working}).services.empty())
        << "no current set";
    preferences_.setCurrentSet(std::vector{service("WIRED", "w", true, named("en0"))}, std::nullopt);
    preferences_.fail({.open = true});
    FakeDynamicStores transient;
    transient.set("Setup:/Network/Service/VPN/Interface", plist::Dictionary{{"DeviceName", "utun1"}});
    EXPECT_EQ(idsOf(SystemConfigurationReader::read({&interfaces_, &preferences_, &transient})),
              std::vector<std::string>{"VPN"})
        << "no preferences: transient services only";
    EXPECT_EQ(SystemConfigurationReader::read({nullptr, nullptr, nullptr}), NetworkMetadata());
}

TEST(NetworkMetadata, ServiceForABSDNameIsTheFirstInPresentationOrder) {
    NetworkMetadata metadata;
    metadata.services = {NetworkService{"A", "a", true, std::nullopt, false}, NetworkService{"B", "b", true, "en0", false},
                         NetworkService{"C", "c", true, "en0", true}};
    EXPECT_EQ(metadata.service("en0")->id, "B");
    EXPECT_FALSE(metadata.service("en"));
    EXPECT_FALSE(NetworkMetadata().service("en0"));
}

TEST(NetworkMetadata, EqualValuesHashEquallyAndFieldsCount) {
    NetworkMetadata a;
    a.interfaces.emplace("en0", InterfaceMetadata{"en0", "Ethernet", "Ethernet", std::nullopt});
    a.services.push_back(NetworkService{"A", "a", true, "en0", false});
    a.primaryIPv4Interface = "en0";
    NetworkMetadata b = a;
    EXPECT_EQ(std::hash<NetworkMetadata>{}(a), std::hash<NetworkMetadata>{}(b));
    b.primaryIPv6Interface = "en0";
    b.primaryIPv4Interface.reset();
    EXPECT_NE(a, b);
    EXPECT_NE(std::hash<NetworkMetadata>{}(a), std::hash<NetworkMetadata>{}(b)) << "a field's slot matters";
    std::unordered_set<NetworkService> services{a.services[0], NetworkService{"A", "a", false, "en0", false}};
    EXPECT_EQ(services.size(), 2u);
}

}  // namespace
}  // namespace netvane
