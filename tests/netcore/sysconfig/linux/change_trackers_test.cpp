#include "netcore/sysconfig/linux/change_trackers.h"

#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/socket.h>

namespace netvane {
namespace {

kernel::Link link(int index, std::string name, bool active) {
    kernel::Link l;
    l.index = index;
    l.name = std::move(name);
    l.flags = active ? (IFF_UP | IFF_RUNNING) : IFF_UP;
    return l;
}

kernel::Address address(int index, unsigned char family) {
    return kernel::Address{index, family, family == AF_INET ? "10.0.0.1" : "fd00::1", 24};
}

KeySet interfaceKeys(const std::string& name) {
    return {"State:/Network/Interface/" + name + "/Link", "State:/Network/Interface/" + name + "/IPv4",
            "State:/Network/Interface/" + name + "/IPv6"};
}

KeySet with(KeySet keys, std::initializer_list<std::string> more) {
    keys.insert(more.begin(), more.end());
    return keys;
}

class KernelChangeTrackerTest : public ::testing::Test {
protected:
    void SetUp() override { tracker_.reset({link(1, "lo", true), link(2, "eth0", false)}, std::nullopt, std::nullopt); }
    KeySet apply(const std::function<void(KeySet&)>& event) {
        KeySet keys;
        event(keys);
        return keys;
    }
    KernelChangeTracker tracker_;
};

TEST_F(KernelChangeTrackerTest, LinksComeGoAndChangeState) {
    EXPECT_EQ(apply([&](KeySet& k) { tracker_.linkChanged(link(3, "eth1", false), false, k); }),
              (KeySet{"State:/Network/Interface", "State:/Network/Interface/eth1/Link"}));
    EXPECT_EQ(apply([&](KeySet& k) { tracker_.linkChanged(link(3, "eth1", false), false, k); }), KeySet{})
        << "a message that changes nothing we show names nothing";
    EXPECT_EQ(apply([&](KeySet& k) { tracker_.linkChanged(link(2, "eth0", true), false, k); }),
              KeySet{"State:/Network/Interface/eth0/Link"});
    EXPECT_EQ(apply([&](KeySet& k) { tracker_.linkChanged(link(2, "eth0", false), true, k); }),
              with(interfaceKeys("eth0"), {"State:/Network/Interface"}));
}

TEST_F(KernelChangeTrackerTest, ARenameMovesEveryKeyAndARemovalNamesThemAll) {
    KeySet expected = interfaceKeys("eth0");
    expected.merge(interfaceKeys("wan"));
    expected.insert("State:/Network/Interface");
    EXPECT_EQ(apply([&](KeySet& k) { tracker_.linkChanged(link(2, "wan", false), false, k); }), expected);
    EXPECT_EQ(apply([&](KeySet& k) { tracker_.linkChanged(link(2, "wan", false), true, k); }),
              with(interfaceKeys("wan"), {"State:/Network/Interface"}));
    EXPECT_EQ(apply([&](KeySet& k) { tracker_.addressChanged(address(2, AF_INET), k); }), KeySet{})
        << "the addresses of a removed link went with it";
    EXPECT_EQ(apply([&](KeySet& k) { tracker_.linkChanged(link(2, "wan", false), true, k); }), KeySet{});
}

TEST_F(KernelChangeTrackerTest, AddressesNameTheirFamilysKey) {
    EXPECT_EQ(apply([&](KeySet& k) { tracker_.addressChanged(address(2, AF_INET), k); }),
              KeySet{"State:/Network/Interface/eth0/IPv4"});
    EXPECT_EQ(apply([&](KeySet& k) { tracker_.addressChanged(address(1, AF_INET6), k); }),
              KeySet{"State:/Network/Interface/lo/IPv6"});
}

TEST_F(KernelChangeTrackerTest, PrimariesAreReportedOnlyWhenTheyMove) {
    const kernel::PrimaryRoute viaEth0{"eth0", "10.0.0.254"};
    EXPECT_EQ(apply([&](KeySet& k) { tracker_.primariesAre(viaEth0, std::nullopt, k); }),
              KeySet{"State:/Network/Global/IPv4"});
    EXPECT_EQ(apply([&](KeySet& k) { tracker_.primariesAre(viaEth0, std::nullopt, k); }), KeySet{});
    EXPECT_EQ(apply([&](KeySet& k) { tracker_.primariesAre(kernel::PrimaryRoute{"eth0", "10.0.0.253"}, viaEth0, k); }),
              (KeySet{"State:/Network/Global/IPv4", "State:/Network/Global/IPv6"}))
        << "a new router is a change";
    EXPECT_EQ(apply([&](KeySet& k) { tracker_.primariesAre(std::nullopt, std::nullopt, k); }),
              (KeySet{"State:/Network/Global/IPv4", "State:/Network/Global/IPv6"}));
}

TEST_F(KernelChangeTrackerTest, AResyncNamesEveryInterfaceBeforeAndAfter) {
    KeySet expected = interfaceKeys("lo");
    expected.merge(interfaceKeys("eth0"));
    expected.merge(interfaceKeys("eth1"));
    expected.insert("State:/Network/Interface");
    EXPECT_EQ(apply([&](KeySet& k) { tracker_.resync({link(1, "lo", true), link(3, "eth1", true)}, k); }), expected);
    EXPECT_EQ(apply([&](KeySet& k) { tracker_.linkChanged(link(3, "eth1", true), false, k); }), KeySet{})
        << "the resync is the new baseline";
}

TEST_F(KernelChangeTrackerTest, LinksThatCouldNotBeReadAgainAreStillKnown) {
    KeySet expected = with(interfaceKeys("lo"), {"State:/Network/Interface"});
    expected.merge(interfaceKeys("eth0"));
    EXPECT_EQ(apply([&](KeySet& k) { tracker_.unsure(k); }), expected);
    EXPECT_EQ(apply([&](KeySet& k) { tracker_.linkChanged(link(2, "eth0", false), true, k); }),
              with(interfaceKeys("eth0"), {"State:/Network/Interface"}))
        << "a removal after a failed re-read is still news";
}

TEST(NetworkManagerChangeTracker, ProfilesAndActiveConnectionsNameTheirKeys) {
    const std::string a = "State:/Network/Service/A/", setupA = "Setup:/Network/Service/A";
    NetworkManagerChangeTracker tracker;
    nm::State state;
    state.profiles.push_back(nm::Profile{"/p/1", "A", "a", "", {}, {}, true, 0, {}, 0});
    state.active.push_back(nm::ActiveConnection{"/a/1", "A", "/p/1", 2, "eth0", true, true});
    tracker.reset(state);

    KeySet keys;
    EXPECT_TRUE(tracker.profileTouched("/p/1", keys));
    EXPECT_FALSE(tracker.profileTouched("/p/2", keys));
    EXPECT_EQ(keys, (KeySet{setupA, setupA + "/Interface"}));

    keys.clear();
    tracker.profileChanged("/p/1", "B", keys);  // the profile now has another UUID
    EXPECT_EQ(keys, (KeySet{setupA, setupA + "/Interface", "Setup:/Network/Service/B",
                            "Setup:/Network/Service/B/Interface"}));
    keys.clear();
    tracker.profileRemoved("/p/1", keys);
    tracker.profileRemoved("/p/1", keys);
    EXPECT_EQ(keys, (KeySet{"Setup:/Network/Service/B", "Setup:/Network/Service/B/Interface"}));

    keys.clear();
    EXPECT_EQ(tracker.activeListIs({"/a/1", "/a/2"}, keys), std::vector<std::string>{"/a/2"});
    EXPECT_TRUE(keys.empty());
    tracker.activeChanged("/a/2", "C", keys);
    EXPECT_TRUE(tracker.activeTouched("/a/1", keys));
    EXPECT_EQ(keys, (KeySet{a + "IPv4", a + "IPv6", "State:/Network/Service/C/IPv4", "State:/Network/Service/C/IPv6"}));
    keys.clear();
    EXPECT_TRUE(tracker.activeListIs({"/a/2"}, keys).empty());
    EXPECT_EQ(keys, (KeySet{a + "IPv4", a + "IPv6"})) << "a connection that went away";
    keys.clear();
    tracker.managerLost(keys);
    EXPECT_EQ(keys, (KeySet{"State:/Network/Service/C/IPv4", "State:/Network/Service/C/IPv6"}));
    keys.clear();
    EXPECT_FALSE(tracker.activeTouched("/a/2", keys));
}

}  // namespace
}  // namespace netvane
