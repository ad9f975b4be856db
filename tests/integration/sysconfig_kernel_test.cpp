// The configuration reader, the dynamic store and the change watcher against
// the real kernel, each test in a network namespace of its own, with no
// system bus (so no NetworkManager): primary interfaces, the interface list,
// the store's keys, and the batches that changes produce.
#include <stdlib.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "netcore/sysconfig/linux/dynamic_store.h"
#include "netcore/sysconfig/linux/kernel_network.h"
#include "netcore/sysconfig/network_change_watcher.h"
#include "netcore/sysconfig/system_configuration_reader.h"
#include "network_namespace.h"

namespace netvane {
namespace {

using namespace std::chrono_literals;
using testing::sh;
using Keys = std::vector<std::string>;

// Batches in the order the watcher delivered them.
class Batches {
public:
    NetworkChangeWatcher::Handler handler() {
        return [this](const Keys& keys) {
            const std::lock_guard guard(mutex_);
            batches_.push_back(keys);
            arrived_.notify_all();
        };
    }
    // The next batch, or nothing after `timeout`.
    std::optional<Keys> next(std::chrono::milliseconds timeout = 5s) {
        std::unique_lock guard(mutex_);
        if (!arrived_.wait_for(guard, timeout, [&] { return !batches_.empty(); })) return std::nullopt;
        Keys keys = std::move(batches_.front());
        batches_.pop_front();
        return keys;
    }
    // Every key of every batch until all of `keys` showed up (or the time is up).
    std::set<std::string> until(const Keys& keys, std::chrono::milliseconds timeout = 10s) {
        std::set<std::string> seen;
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        auto complete = [&] {
            return std::all_of(keys.begin(), keys.end(), [&](const std::string& key) { return seen.contains(key); });
        };
        while (!complete() && std::chrono::steady_clock::now() < deadline) {
            if (auto batch = next(100ms)) seen.insert(batch->begin(), batch->end());
        }
        return seen;
    }

private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::deque<Keys> batches_;
};

class SysconfigKernelTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto reason = testing::enterPrivateNetworkNamespace()) GTEST_SKIP() << *reason;
        // No bus at all: these tests are about the kernel's part.
        ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/netvane-test-bus", 1);
        // No automatic IPv6 link-local addresses: they would add batches of their own.
        ASSERT_TRUE(sh("sysctl -qw net.ipv6.conf.default.addr_gen_mode=1 net.ipv6.conf.all.addr_gen_mode=1"));
    }
    void TearDown() override { ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); }

    // Both ends up and carrying: the kernel reports the carrier up to a
    // second after the link is set up, and a watcher made before that would
    // see it as a change of its own.
    // Forty veth pairs at once, each with an address: more events than a
    // small receive queue holds.
    static bool burst() {
        std::string script;
        for (int i = 0; i < 40; ++i) {
            const std::string name = "nvo" + std::to_string(i);
            script += "link add " + name + " type veth peer name " + name + "p\n";
            script += "link set " + name + " up\nlink set " + name + "p up\n";
            script += "addr add 10.3." + std::to_string(i) + ".1/24 dev " + name + "\n";
        }
        return sh("printf '" + script + "' | ip -batch -");
    }

    static void vethPair(const std::string& a, const std::string& b) {
        ASSERT_TRUE(sh("ip link add " + a + " type veth peer name " + b + " && ip link set " + a + " up && ip link set " +
                       b + " up"));
        ASSERT_TRUE(sh("for i in $(seq 1 100); do grep -q '^up$' /sys/class/net/" + a + "/operstate && grep -q '^up$' "
                       "/sys/class/net/" + b + "/operstate && exit 0; sleep 0.05; done; exit 1"));
    }
};

TEST_F(SysconfigKernelTest, PrimaryInterfacesFollowDefaultRoutesAndPolicyRules) {
    vethPair("nva", "nva-far");
    vethPair("nvb", "nvb-far");
    ASSERT_TRUE(sh("ip addr add 10.1.0.1/24 dev nva && ip addr add 10.2.0.1/24 dev nvb"));
    ASSERT_TRUE(sh("ip -6 addr add fd01::1/64 dev nva nodad && ip -6 addr add fd02::1/64 dev nvb nodad"));
    NetworkMetadata metadata = SystemConfigurationReader::read();
    EXPECT_FALSE(metadata.primaryIPv4Interface) << "no default route, no primary";
    EXPECT_FALSE(metadata.primaryIPv6Interface);

    ASSERT_TRUE(sh("ip route add default via 10.1.0.254 && ip -6 route add default via fd01::fe"));
    metadata = SystemConfigurationReader::read();
    EXPECT_EQ(metadata.primaryIPv4Interface, "nva");
    EXPECT_EQ(metadata.primaryIPv6Interface, "nva");

    // A rule sends everything to another table, whose default goes through nvb:
    // the main table's default route no longer carries the traffic.
    ASSERT_TRUE(sh("ip route add default via 10.2.0.254 table 100 && ip rule add pref 100 lookup 100"));
    ASSERT_TRUE(sh("ip -6 route add default via fd02::fe table 100 && ip -6 rule add pref 100 lookup 100"));
    metadata = SystemConfigurationReader::read();
    EXPECT_EQ(metadata.primaryIPv4Interface, "nvb");
    EXPECT_EQ(metadata.primaryIPv6Interface, "nvb");
    EXPECT_TRUE(metadata.services.empty()) << "no NetworkManager, no services";

    auto store = systemDynamicStores().create("Netvane", {});
    EXPECT_EQ(store->copyValue("State:/Network/Global/IPv4"),
              plist::Value(plist::Dictionary{{"PrimaryInterface", "nvb"}, {"Router", "10.2.0.254"}}));
    ASSERT_TRUE(sh("ip route replace unreachable default table 100"));
    EXPECT_FALSE(store->copyValue("State:/Network/Global/IPv4")) << "an unreachable route is no primary";
}

TEST_F(SysconfigKernelTest, InterfacesAreListedWithTheirKindsAndAddresses) {
    vethPair("nva", "nva-far");
    ASSERT_TRUE(sh("ip link set nva address 02:00:00:00:0a:01 && ip link set nva alias 'Uplink port'"));
    ASSERT_TRUE(sh("ip link add nvbr type bridge"));
    const bool layered = sh("ip link add link nva name nvmac type macvlan");
    const NetworkMetadata metadata = SystemConfigurationReader::read();
    EXPECT_FALSE(metadata.interfaces.contains("lo")) << "loopback is not configurable";
    ASSERT_TRUE(metadata.interfaces.contains("nva"));
    EXPECT_EQ(metadata.interfaces.at("nva"), (InterfaceMetadata{"nva", "Uplink port", "Ethernet", "02:00:00:00:0a:01"}));
    ASSERT_TRUE(metadata.interfaces.contains("nvbr"));
    EXPECT_EQ(metadata.interfaces.at("nvbr").interfaceType, "Bridge");
    EXPECT_EQ(metadata.interfaces.at("nvbr").displayName, "Bridge");

    if (layered) {
        const auto all = systemNetworkInterfaces().copyAll();
        ASSERT_TRUE(all);
        for (const NetworkInterface& interface : *all) {
            if (interface.bsdName != "nvmac") continue;
            ASSERT_EQ(interface.underlying.size(), 1u);
            EXPECT_EQ(interface.underlying[0].bsdName, "nva");
        }
    }
}

TEST_F(SysconfigKernelTest, TheStoreAnswersKeysAndPatternsFromTheKernel) {
    vethPair("nva", "nva-far");
    ASSERT_TRUE(sh("ip link set nva-far down"));
    ASSERT_TRUE(sh("ip addr add 10.1.0.1/24 dev nva && ip addr add 10.1.1.1/16 dev nva"));
    ASSERT_TRUE(sh("ip -6 addr add fd01::1/64 dev nva nodad"));
    auto store = systemDynamicStores().create("Netvane", {});
    EXPECT_EQ(store->copyValue("State:/Network/Interface/nva/IPv4"),
              plist::Value(plist::Dictionary{{"Addresses", plist::Array{"10.1.0.1", "10.1.1.1"}},
                                             {"SubnetMasks", plist::Array{"255.255.255.0", "255.255.0.0"}}}));
    EXPECT_EQ(store->copyValue("State:/Network/Interface/nva/IPv6"),
              plist::Value(plist::Dictionary{{"Addresses", plist::Array{"fd01::1"}}, {"PrefixLength", plist::Array{64}}}));
    EXPECT_EQ(store->copyValue("State:/Network/Interface/nva/Link"),
              plist::Value(plist::Dictionary{{"Active", false}})) << "its peer is down, so it carries nothing";
    EXPECT_FALSE(store->copyValue("State:/Network/Interface/nva-far/IPv4"));
    EXPECT_FALSE(store->copyValue("State:/Network/Interface/nva/Bogus"));

    const auto list = store->copyValue("State:/Network/Interface");
    ASSERT_TRUE(list);
    EXPECT_EQ(*list->find("Interfaces"), plist::Value(plist::Array{"lo", "nva-far", "nva"}));

    const auto links = store->copyMultiple({"State:/Network/Interface"}, {"State:/Network/Interface/[^/]+/Link"});
    ASSERT_TRUE(links && links->dictionary());
    std::vector<std::string> keys;
    for (const auto& [key, value] : *links->dictionary()) keys.push_back(key);
    EXPECT_EQ(keys, (Keys{"State:/Network/Interface", "State:/Network/Interface/lo/Link",
                          "State:/Network/Interface/nva-far/Link", "State:/Network/Interface/nva/Link"}));
    const auto services = store->copyMultiple({}, {"Setup:/Network/Service/[^/]+/Interface"});
    ASSERT_TRUE(services);
    EXPECT_TRUE(services->dictionary()->empty()) << "no NetworkManager";
}

TEST_F(SysconfigKernelTest, EachChangeArrivesAsOneBatchOfTheKeysItTouched) {
    vethPair("nva", "nva-far");
    auto queue = std::make_shared<SerialQueue>();
    Batches batches;
    NetworkChangeWatcher watcher(queue, batches.handler());
    ASSERT_TRUE(watcher.watching());

    ASSERT_TRUE(sh("ip addr add 10.1.0.1/24 dev nva"));
    EXPECT_EQ(batches.next(), Keys{"State:/Network/Interface/nva/IPv4"})
        << "the address, its local and its prefix route make one batch, and no primary moved";
    ASSERT_TRUE(sh("ip route add default via 10.1.0.254"));
    EXPECT_EQ(batches.next(), Keys{"State:/Network/Global/IPv4"});
    ASSERT_TRUE(sh("ip route add 10.50.0.0/16 via 10.1.0.253"));  // moves nothing the store shows
    ASSERT_TRUE(sh("ip -6 addr add fd01::1/64 dev nva nodad"));
    EXPECT_EQ(batches.next(), Keys{"State:/Network/Interface/nva/IPv6"});
    // Taking one end down changes both ends' carrier, and making or removing
    // a veth registers two devices: on a busy machine the second event can
    // come after the quiet window, as a change of its own. What counts is
    // that every key comes, and no other.
    ASSERT_TRUE(sh("ip link set nva-far down"));
    Keys expected{"State:/Network/Interface/nva-far/Link", "State:/Network/Interface/nva/Link"};
    EXPECT_EQ(batches.until(expected), std::set<std::string>(expected.begin(), expected.end()))
        << "a route over a link without carrier stays, so the primary stays";
    ASSERT_TRUE(sh("ip link add nvb type veth peer name nvb-far"));
    expected = {"State:/Network/Interface", "State:/Network/Interface/nvb-far/Link", "State:/Network/Interface/nvb/Link"};
    EXPECT_EQ(batches.until(expected), std::set<std::string>(expected.begin(), expected.end()));
    ASSERT_TRUE(sh("ip link set nvb name nvc"));
    EXPECT_EQ(batches.next(), (Keys{"State:/Network/Interface", "State:/Network/Interface/nvb/IPv4",
                                    "State:/Network/Interface/nvb/IPv6", "State:/Network/Interface/nvb/Link",
                                    "State:/Network/Interface/nvc/IPv4", "State:/Network/Interface/nvc/IPv6",
                                    "State:/Network/Interface/nvc/Link"}));
    ASSERT_TRUE(sh("ip link del nva"));
    expected = {"State:/Network/Global/IPv4",           "State:/Network/Interface",
                "State:/Network/Interface/nva-far/IPv4", "State:/Network/Interface/nva-far/IPv6",
                "State:/Network/Interface/nva-far/Link", "State:/Network/Interface/nva/IPv4",
                "State:/Network/Interface/nva/IPv6",     "State:/Network/Interface/nva/Link"};
    EXPECT_EQ(batches.until(expected), std::set<std::string>(expected.begin(), expected.end()));
    EXPECT_FALSE(batches.next(300ms)) << "nothing more happened";
}

TEST_F(SysconfigKernelTest, AnOverrunLosesNoChange) {
    // A receive queue too small for the burst below: the kernel drops events
    // and the store has to make them good.
    auto overruns = std::make_shared<std::atomic<unsigned>>(0);
    auto stores = makeLinuxDynamicStores(ChangeMonitor::Options{.receiveBuffer = 1, .overruns = overruns});
    auto queue = std::make_shared<SerialQueue>();
    Batches batches;
    NetworkChangeWatcher watcher(queue, batches.handler(), *stores);
    ASSERT_TRUE(watcher.watching());

    ASSERT_TRUE(burst());
    const std::set<std::string> seen = batches.until({"State:/Network/Interface/nvo39/IPv4"});
    EXPECT_TRUE(seen.contains("State:/Network/Interface"));
    for (int i = 0; i < 40; ++i) {
        const std::string name = "nvo" + std::to_string(i);
        EXPECT_TRUE(seen.contains("State:/Network/Interface/" + name + "/Link")) << name;
        EXPECT_TRUE(seen.contains("State:/Network/Interface/" + name + "/IPv4")) << name;
    }
    EXPECT_GT(overruns->load(), 0u) << "the burst fitted: this test did not reach the resync";
}

// A reader of the links that fails while told to, as the kernel may (short
// of memory, or a dump it keeps interrupting); it counts what it answered.
struct FlakyLinks {
    std::shared_ptr<std::atomic<bool>> failing = std::make_shared<std::atomic<bool>>(false);
    std::shared_ptr<std::atomic<int>> answered = std::make_shared<std::atomic<int>>(0);

    ChangeMonitor::LinkReader reader() const {
        return [failing = failing, answered = answered](nv_nl_socket_t* routing) -> Result<std::vector<kernel::Link>> {
            if (*failing) return posixError(ENOMEM, "read the kernel's links");
            auto links = kernel::dumpLinks(routing);
            if (links) ++*answered;
            return links;
        };
    }
};

TEST_F(SysconfigKernelTest, ALinkKnownBeforeAFailedReReadIsStillReportedWhenItGoes) {
    // Down, so that its removal is one message of its own and nothing else
    // tells the watcher about it.
    ASSERT_TRUE(sh("ip link add nvgone type veth peer name nvgone-far"));
    const FlakyLinks links;
    auto overruns = std::make_shared<std::atomic<unsigned>>(0);
    auto stores = makeLinuxDynamicStores(
        ChangeMonitor::Options{.receiveBuffer = 1, .overruns = overruns, .readLinks = links.reader()});
    auto queue = std::make_shared<SerialQueue>();
    Batches batches;
    NetworkChangeWatcher watcher(queue, batches.handler(), *stores);
    ASSERT_TRUE(watcher.watching());

    *links.failing = true;
    ASSERT_TRUE(burst());
    const std::set<std::string> lost = batches.until({"State:/Network/Interface/nvgone/Link"});
    ASSERT_GT(overruns->load(), 0u) << "the burst fitted: this test did not reach the re-read";
    EXPECT_TRUE(lost.contains("State:/Network/Interface/nvgone/Link")) << "lost events may have changed it";
    // Until the burst has settled; a watcher that never does fails below.
    for (const auto until = std::chrono::steady_clock::now() + 5s;
         std::chrono::steady_clock::now() < until && batches.next(500ms);) {
    }

    ASSERT_TRUE(sh("ip link del nvgone"));
    const std::set<std::string> gone =
        batches.until({"State:/Network/Interface/nvgone/Link", "State:/Network/Interface/nvgone-far/Link"});
    for (const char* key : {"State:/Network/Interface/nvgone/Link", "State:/Network/Interface/nvgone/IPv4",
                            "State:/Network/Interface/nvgone-far/Link", "State:/Network/Interface"}) {
        EXPECT_TRUE(gone.contains(key)) << key;
    }

    // Once the links can be read again, the re-read is made good.
    const int before = links.answered->load();
    *links.failing = false;
    for (int i = 0; i < 100 && links.answered->load() == before; ++i) std::this_thread::sleep_for(20ms);
    EXPECT_GT(links.answered->load(), before) << "the failed re-read was never tried again";
}

TEST_F(SysconfigKernelTest, AStoreWhoseFirstReadingFailsDoesNotClaimToNotify) {
    FlakyLinks links;
    *links.failing = true;
    ChangeMonitor::Options options;
    options.readLinks = links.reader();
    auto store = makeLinuxDynamicStores(options)->create("Netvane", [](const plist::Value*) {});
    // Without a baseline every removal would go unreported.
    EXPECT_FALSE(store->setDispatchQueue(std::make_shared<SerialQueue>()));
    *links.failing = false;
    EXPECT_TRUE(store->setDispatchQueue(std::make_shared<SerialQueue>()));
}

// The CLI end of the same: the JSON keys are the records' field names, and
// watch-config prints each batch as one line.
TEST_F(SysconfigKernelTest, TheCommandsShowTheConfigurationAndItsChanges) {
    vethPair("nva", "nva-far");
    ASSERT_TRUE(sh("ip addr add 10.1.0.1/24 dev nva && ip route add default via 10.1.0.254"));
    const std::string cli = NETVANE_CLI;
    const std::string json = testing::capture(cli + " services --json").value_or("");
    for (const char* expected : {"\"interfaces\": {", "\"bsdName\": \"nva\"", "\"interfaceType\": \"Ethernet\"",
                                 "\"services\": []", "\"primaryIPv4Interface\": \"nva\""}) {
        EXPECT_NE(json.find(expected), std::string::npos) << expected << " in\n" << json;
    }
    EXPECT_EQ(json.find("primaryIPv6Interface"), std::string::npos) << "an absent primary is left out";

    // The command waits for its first batch. A slow start (a sanitized build on a
    // busy machine) may miss a change made too early, so one is made every half
    // second until the command has its batch: each gives the same key.
    const std::string output =
        testing::capture(cli + " watch-config --count 1 --json & watcher=$!; for i in $(seq 1 40); do sleep 0.5; "
                               "kill -0 $watcher 2>/dev/null || break; ip addr add 10.2.0.$i/32 dev nva; done; wait $watcher")
            .value_or("");
    EXPECT_EQ(output, "[\"State:/Network/Interface/nva/IPv4\"]\n");
}

}  // namespace
}  // namespace netvane
