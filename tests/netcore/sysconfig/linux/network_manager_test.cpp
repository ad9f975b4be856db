#include "netcore/sysconfig/linux/network_manager.h"

#include <gtest/gtest.h>

namespace netvane {
namespace {

using plist::Dictionary;

constexpr const char* kOffice = "b996c7e1-3551-44cf-a403-c2bb5d4faeac";
constexpr const char* kTrunk = "0c1d7a52-93c0-4a8e-9d5b-1d0f3b1d2e4f";

plist::Value settings(const char* uuid, Dictionary connection, Dictionary more = {}) {
    connection.set("uuid", uuid);
    Dictionary all{{"connection", std::move(connection)}};
    for (const auto& [name, setting] : more) all.append(name, setting);
    return all;
}

nm::Profile profile(const char* uuid, std::int64_t priority, std::uint32_t flags = 0) {
    nm::Profile p;
    p.uuid = uuid;
    p.priority = priority;
    p.flags = flags;
    return p;
}

TEST(NetworkManagerMapping, AProfileReadsAsAServiceWithDefaultsForWhatItLeavesOut) {
    auto office = nm::profileFrom(
        "/p/1",
        settings(kOffice, {{"id", "Office"}, {"type", "vlan"}, {"interface-name", "eth0.7"}, {"autoconnect", false},
                           {"autoconnect-priority", -3}},
                 {{"vlan", Dictionary{{"parent", "eth0"}, {"id", 7}}},
                  {"user", Dictionary{{"data", Dictionary{{nm::kHiddenKey, "true"}, {"other.key", "x"}}}}}}),
        nm::kUnsaved);
    ASSERT_TRUE(office);
    EXPECT_EQ(office->path, "/p/1");
    EXPECT_EQ(office->id, "Office");
    EXPECT_EQ(office->interfaceName, "eth0.7");
    EXPECT_EQ(office->parent, "eth0");
    EXPECT_FALSE(office->autoconnect);
    EXPECT_EQ(office->priority, -3);
    EXPECT_EQ(office->hidden, "true");
    EXPECT_FALSE(office->saved());

    auto bare = nm::profileFrom("/p/2", settings(kTrunk, {{"type", "802-3-ethernet"}, {"interface-name", ""}}), 0);
    ASSERT_TRUE(bare);
    EXPECT_TRUE(bare->autoconnect) << "NetworkManager leaves out a true autoconnect";
    EXPECT_EQ(bare->priority, 0);
    EXPECT_FALSE(bare->interfaceName) << "an empty name binds to no interface";
    EXPECT_FALSE(bare->hidden);
    EXPECT_TRUE(bare->saved());

    EXPECT_FALSE(nm::profileFrom("/p/3", Dictionary{{"connection", Dictionary{{"id", "x"}}}}, 0));
    EXPECT_FALSE(nm::profileFrom("/p/4", plist::Array{}, 0));
}

TEST(NetworkManagerMapping, TheServiceEntityRoundTripsEnabledAndHidden) {
    nm::Profile p = profile(kOffice, 0);
    p.id = "Office";
    p.type = "802-11-wireless";
    p.interfaceName = "wlan0";
    p.hidden = "true";
    EXPECT_EQ(plist::Value(nm::serviceEntity(p)),
              plist::Value(Dictionary{{"UserDefinedName", "Office"},
                                      {"Interface", Dictionary{{"DeviceName", "wlan0"},
                                                               {"Type", "IEEE80211"},
                                                               {"UserDefinedName", "Office"},
                                                               {"HiddenConfiguration", true}}}}));
    p.autoconnect = false;
    p.hidden = "false";
    p.interfaceName.reset();
    p.type = "something-new";
    EXPECT_EQ(plist::Value(nm::serviceEntity(p)),
              plist::Value(Dictionary{{"UserDefinedName", "Office"},
                                      {"__INACTIVE__", true},
                                      {"Interface", Dictionary{{"UserDefinedName", "Office"},
                                                               {"HiddenConfiguration", false}}}}));
    p.hidden = "yes";
    EXPECT_EQ(*nm::serviceEntity(p).find("Interface")->find("HiddenConfiguration"), plist::Value("yes"))
        << "text that is neither true nor false stays text, which hides nothing";
}

TEST(NetworkManagerMapping, ServiceOrderRanksSavedProfilesByPriorityKeepingTiesInOrder) {
    const std::vector<nm::Profile> profiles{profile("a", 0), profile("b", 10), profile("c", 0),
                                            profile("memory", 99, nm::kUnsaved), profile("d", 10),
                                            profile("generated", 50, nm::kGenerated | nm::kExternal),
                                            profile("e", -5)};
    EXPECT_EQ(nm::serviceOrder(profiles), (std::vector<std::string>{"b", "d", "a", "c", "e"}));
}

TEST(NetworkManagerMapping, LayeredProfilesNameTheInterfacesBelow) {
    nm::Profile trunk = profile(kTrunk, 0);
    trunk.type = "bond";
    trunk.interfaceName = "bond0";
    nm::Profile vlan = profile(kOffice, 0);
    vlan.type = "vlan";
    vlan.interfaceName = "bond0.7";
    vlan.parent = kTrunk;
    NetworkInterface layered = nm::interfaceOf(vlan, {trunk, vlan});
    EXPECT_EQ(layered.bsdName, "bond0.7");
    EXPECT_EQ(layered.interfaceType, "VLAN");
    ASSERT_EQ(layered.underlying.size(), 1u);
    EXPECT_EQ(layered.underlying[0].bsdName, "bond0") << "a parent given by UUID is that profile's interface";
    EXPECT_EQ(layered.underlying[0].interfaceType, "Bond");

    vlan.interfaceName.reset();
    vlan.parent = "eth1";
    layered = nm::interfaceOf(vlan, {vlan});
    EXPECT_FALSE(layered.bsdName);
    ASSERT_EQ(layered.underlying.size(), 1u);
    EXPECT_EQ(layered.underlying[0].bsdName, "eth1");

    // Two profiles naming each other as parents end in a bounded chain.
    nm::Profile a = profile(kOffice, 0), b = profile(kTrunk, 0);
    a.parent = kTrunk;
    b.parent = kOffice;
    int depth = 0;
    for (const NetworkInterface* layer = &(layered = nm::interfaceOf(a, {a, b})); !layer->underlying.empty();
         layer = &layer->underlying[0]) {
        ++depth;
    }
    EXPECT_LE(depth, 8);
    EXPECT_FALSE(nm::interfaceOf(profile(kOffice, 0), {}).bsdName);
}

TEST(NetworkManagerMapping, StateTakesProfilesInSettingsOrderAndActiveConnectionsWithTheirInterfaces) {
    const plist::Value objects = Dictionary{
        {nm::kSettingsPath, Dictionary{{nm::kSettingsInterface, Dictionary{{"Connections", plist::Array{"/p/2", "/p/1", "/p/9"}}}}}},
        {"/p/1", Dictionary{{nm::kProfileInterface, Dictionary{{"Flags", 0}}}}},
        {"/p/2", Dictionary{{nm::kProfileInterface, Dictionary{{"Flags", 1}}}}},
        {"/a/1", Dictionary{{nm::kActiveInterface, Dictionary{{"Uuid", kOffice},
                                                              {"Connection", "/p/1"},
                                                              {"State", 2},
                                                              {"Devices", plist::Array{"/d/1"}},
                                                              {"Ip4Config", "/ip4/1"},
                                                              {"Ip6Config", "/"}}}}},
        {"/a/2", Dictionary{{nm::kActiveInterface, Dictionary{{"Uuid", kTrunk}, {"State", 1}, {"Devices", plist::Array{}}}}}},
        {"/d/1", Dictionary{{nm::kDeviceInterface, Dictionary{{"Interface", "ppp-parent"}, {"IpInterface", "ppp0"}}}}},
    };
    const std::map<std::string, plist::Value> profileSettings{
        {"/p/1", settings(kOffice, {{"id", "Office"}})}, {"/p/2", settings(kTrunk, {{"id", "Trunk"}})}};

    const nm::State state = nm::stateFrom(objects, profileSettings);
    ASSERT_EQ(state.profiles.size(), 2u) << "a listed profile without settings drops out";
    EXPECT_EQ(state.profiles[0].uuid, kTrunk);
    EXPECT_EQ(state.profiles[0].flags, nm::kUnsaved);
    EXPECT_EQ(state.profiles[1].uuid, kOffice);
    EXPECT_EQ(state.profile(kOffice)->path, "/p/1");
    ASSERT_EQ(state.active.size(), 2u);
    EXPECT_EQ(state.active[0], (nm::ActiveConnection{"/a/1", kOffice, "/p/1", 2, "ppp0", true, false}));
    EXPECT_FALSE(state.active[1].activated());
    EXPECT_FALSE(state.active[1].interfaceName);
    EXPECT_TRUE(nm::stateFrom(plist::Value("no objects"), profileSettings).profiles.empty());
}

TEST(NetworkManagerMapping, OnlyTheCanonicalUUIDSpellingIsAProfileID) {
    EXPECT_TRUE(nm::isUUID(kOffice));
    EXPECT_TRUE(nm::isUUID("B996C7E1-3551-44CF-A403-C2BB5D4FAEAC"));
    EXPECT_FALSE(nm::isUUID("b996c7e135514-4cf-a403-c2bb5d4faeac"));
    EXPECT_FALSE(nm::isUUID("b996c7e1-3551-44cf-a403-c2bb5d4faea"));
    EXPECT_FALSE(nm::isUUID("g996c7e1-3551-44cf-a403-c2bb5d4faeac"));
    EXPECT_FALSE(nm::isUUID(""));
}

}  // namespace
}  // namespace netvane
