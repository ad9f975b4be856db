// The configuration path against a real NetworkManager on a private bus in a
// network namespace of the test's own: profiles read as services, services
// switched through the preferences the daemon uses, and the changes the
// watcher reports. NetworkManager's own command-line client checks what it
// ended up with.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

#include "admin_protocol/admin_error.h"
#include "daemon/service_configurator.h"
#include "netcore/sysconfig/linux/bus.h"
#include "netcore/sysconfig/linux/network_manager.h"
#include "netcore/sysconfig/network_change_watcher.h"
#include "netcore/sysconfig/system_configuration_reader.h"
#include "network_manager_world.h"
#include "network_namespace.h"
#include "support/uuid.h"

namespace netvane {
namespace {

using namespace std::chrono_literals;
using testing::capture;

struct ProfileSpec {
    std::string id;
    std::optional<std::string> interfaceName = std::nullopt;
    std::int32_t priority = 0;
    bool autoconnect = false;
    std::optional<std::string> hidden = std::nullopt;
    bool inMemory = false;
};

std::string lowerUUID() {
    std::string uuid = *makeUUIDString();
    std::transform(uuid.begin(), uuid.end(), uuid.begin(), [](unsigned char c) { return std::tolower(c); });
    return uuid;
}

// Adds a profile over the bus (the command-line client cannot set user
// data) and returns its UUID.
std::string addProfile(const ProfileSpec& spec) {
    const std::string uuid = lowerUUID();
    auto bus = bus::openSystemBus();
    EXPECT_TRUE(bus);
    if (!bus) return uuid;
    auto call = bus::methodCall(bus->get(), nm::kService, nm::kSettingsPath, nm::kSettingsInterface, "AddConnection2");
    sd_bus_message* m = call->get();
    int r = bus::sd().sd_bus_message_open_container(m, 'a', "{sa{sv}}");
    r = r < 0 ? r : bus::sd().sd_bus_message_open_container(m, 'e', "sa{sv}");
    r = r < 0 ? r : bus::sd().sd_bus_message_append(m, "s", "connection");
    r = r < 0 ? r : bus::sd().sd_bus_message_open_container(m, 'a', "{sv}");
    r = r < 0 ? r
              : bus::sd().sd_bus_message_append(m, "{sv}{sv}{sv}{sv}{sv}", "id", "s", spec.id.c_str(), "uuid", "s",
                                                uuid.c_str(), "type", "s", "802-3-ethernet", "autoconnect", "b",
                                                spec.autoconnect ? 1 : 0, "autoconnect-priority", "i", spec.priority);
    if (spec.interfaceName) {
        r = r < 0 ? r : bus::sd().sd_bus_message_append(m, "{sv}", "interface-name", "s", spec.interfaceName->c_str());
    }
    r = r < 0 ? r : bus::sd().sd_bus_message_close_container(m);
    r = r < 0 ? r : bus::sd().sd_bus_message_close_container(m);
    r = r < 0 ? r : bus::sd().sd_bus_message_append(m, "{sa{sv}}", "802-3-ethernet", 0);
    r = r < 0 ? r : bus::sd().sd_bus_message_append(m, "{sa{sv}}", "ipv4", 1, "method", "s", "disabled");
    r = r < 0 ? r : bus::sd().sd_bus_message_append(m, "{sa{sv}}", "ipv6", 1, "method", "s", "ignore");
    if (spec.hidden) {
        r = r < 0 ? r : bus::sd().sd_bus_message_append(m, "{sa{sv}}", "user", 1, "data", "a{ss}", 1, nm::kHiddenKey,
                                              spec.hidden->c_str());
    }
    r = r < 0 ? r : bus::sd().sd_bus_message_close_container(m);
    r = r < 0 ? r : bus::sd().sd_bus_message_append(m, "ua{sv}", spec.inMemory ? 0x2u : 0x1u, 0);
    EXPECT_GE(r, 0);
    auto reply = bus::call(bus->get(), m);
    EXPECT_TRUE(reply) << (reply ? "" : reply.error().message);
    return uuid;
}

std::string field(const std::string& uuid, const std::string& name) {
    auto out = capture("nmcli -g " + name + " connection show " + uuid);
    if (!out) return "<nmcli failed>";
    while (!out->empty() && out->back() == '\n') out->pop_back();
    return *out;
}

// A secret as NetworkManager hands it out to its owner ("" when it has none).
std::string secret(const std::string& uuid, const char* setting, const char* key) {
    auto bus = bus::openSystemBus();
    if (!bus) return "<no bus>";
    auto lookup = bus::methodCall(bus->get(), nm::kService, nm::kSettingsPath, nm::kSettingsInterface,
                                  "GetConnectionByUuid");
    if (!lookup || bus::sd().sd_bus_message_append(lookup->get(), "s", uuid.c_str()) < 0) return "<no request>";
    auto found = bus::call(bus->get(), lookup->get());
    const char* path = nullptr;
    if (!found || bus::sd().sd_bus_message_read(found->get(), "o", &path) < 0) return "<no profile>";
    auto request = bus::methodCall(bus->get(), nm::kService, path, nm::kProfileInterface, "GetSecrets");
    if (!request || bus::sd().sd_bus_message_append(request->get(), "s", setting) < 0) return "<no request>";
    auto reply = bus::call(bus->get(), request->get());
    if (!reply) return "<" + reply.error().message + ">";
    auto secrets = bus::readValue(reply->get());
    const plist::Value* value = secrets ? secrets->find(setting) : nullptr;
    value = value ? value->find(key) : nullptr;
    return value && value->string() ? *value->string() : "";
}

// NetworkManager's activation state of a profile: "" when not active.
std::string activation(const std::string& uuid) { return field(uuid, "GENERAL.STATE"); }

bool waitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout = 10s) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(50ms);
    }
    return true;
}

std::optional<AdminError> switchService(const std::string& id, bool enabled, std::string* reason = nullptr) {
    const auto preferences = systemNetworkPreferences();
    const Status status = ServiceConfigurator::setEnabled(preferences.get(), id, enabled, reason);
    return status ? std::nullopt : asAdminError(status.error());
}

class NetworkManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string whyNot;
        bool unsupported = false;
        world_ = testing::NetworkManagerWorld::start({"nv0", "nv1"}, whyNot, unsupported);
        if (!world_ && unsupported) GTEST_SKIP() << whyNot;
        ASSERT_TRUE(world_) << whyNot;
    }
    void TearDown() override {
        if (HasFailure() && world_) std::cerr << "NetworkManager's log ends:\n" << world_->logTail() << "\n";
        world_.reset();
    }
    std::unique_ptr<testing::NetworkManagerWorld> world_;
};

TEST_F(NetworkManagerTest, ProfilesReadAsServicesInTheirOrder) {
    const std::string office = addProfile({.id = "Office", .interfaceName = "nv0", .priority = 5});
    const std::string home = addProfile({.id = "Home", .interfaceName = "nv1", .priority = 10, .autoconnect = true});
    const std::string anywhere = addProfile({.id = "Anywhere", .interfaceName = std::nullopt});
    const std::string hidden = addProfile({.id = "Hidden", .interfaceName = "nv1", .priority = 20, .hidden = "true"});
    const std::string memory = addProfile({.id = "Memory", .interfaceName = "nv0", .priority = 50, .inMemory = true});
    ASSERT_TRUE(capture("nmcli connection up " + anywhere + " ifname nv0"));
    ASSERT_TRUE(waitFor([&] { return activation(anywhere) == "activated"; })) << activation(anywhere);

    const NetworkMetadata metadata = SystemConfigurationReader::read();
    std::vector<NetworkService> expected{
        {home, "Home", true, "nv1", false},
        {office, "Office", false, "nv0", false},
        {anywhere, "Anywhere", false, "nv0", false},  // its interface is where it runs now
        {hidden, "Hidden", false, "nv1", true},       // ranked first, shown last
        {memory, "Memory", false, "nv0", false},      // only in memory: transient, after the saved ones
    };
    EXPECT_EQ(metadata.services, expected);
    ASSERT_TRUE(metadata.interfaces.contains("nv0"));
    EXPECT_EQ(metadata.interfaces.at("nv0").interfaceType, "Ethernet");
    EXPECT_EQ(metadata.service("nv1")->id, home) << "the best-ranked service on an interface names it";
}

TEST_F(NetworkManagerTest, AServiceSwitchesOffAndOnAndNetworkManagerAgrees) {
    const std::string lab = addProfile({.id = "Lab", .interfaceName = "nv0"});
    ASSERT_EQ(switchService(lab, true), std::nullopt);
    EXPECT_EQ(field(lab, "connection.autoconnect"), "yes");
    EXPECT_TRUE(waitFor([&] { return activation(lab) == "activated"; })) << "enabling activates it";

    ASSERT_EQ(switchService(lab, true), std::nullopt) << "enabling an enabled service succeeds";
    ASSERT_EQ(switchService(lab, false), std::nullopt);
    EXPECT_EQ(field(lab, "connection.autoconnect"), "no");
    EXPECT_TRUE(waitFor([&] { return activation(lab).empty(); })) << "disabling deactivates it: " << activation(lab);
    EXPECT_EQ(field(lab, "ipv4.method"), "disabled") << "the rest of the profile is as it was";
    const auto services = SystemConfigurationReader::read().services;
    ASSERT_EQ(services.size(), 1u);
    EXPECT_FALSE(services[0].enabled);

    // A profile whose device is missing is enabled all the same: it connects
    // when the device comes.
    const std::string later = addProfile({.id = "Later", .interfaceName = "nv9"});
    EXPECT_EQ(switchService(later, true), std::nullopt);
    EXPECT_EQ(field(later, "connection.autoconnect"), "yes");
}

TEST_F(NetworkManagerTest, SwitchingKeepsTheProfilesSecrets) {
    ASSERT_TRUE(capture("nmcli connection add type ethernet ifname nv1 con-name Secure autoconnect no "
                        "802-1x.eap md5 802-1x.identity me 802-1x.password s3cret ipv4.method disabled "
                        "ipv6.method ignore"));
    const std::string secure = field("Secure", "connection.uuid");
    ASSERT_EQ(switchService(secure, false), std::nullopt);
    // Asked of NetworkManager directly: its own client now and then prints
    // nothing for a secret it does hold.
    EXPECT_EQ(secret(secure, "802-1x", "password"), "s3cret");
    EXPECT_EQ(field(secure, "802-1x.identity"), "me");
}

TEST_F(NetworkManagerTest, UnknownHiddenAndTransientProfilesAreNoServicesToSwitch) {
    const std::string hidden = addProfile({.id = "Hidden", .interfaceName = "nv0", .priority = 0, .hidden = "true"});
    const std::string memory = addProfile({.id = "Memory", .interfaceName = "nv0", .priority = 0, .inMemory = true});
    EXPECT_EQ(switchService(lowerUUID(), true), AdminError::unknownService);
    EXPECT_EQ(switchService("not-a-uuid", true), AdminError::unknownService);
    EXPECT_EQ(switchService(hidden, true), AdminError::unknownService);
    EXPECT_EQ(switchService(memory, true), AdminError::unknownService);
    EXPECT_EQ(field(hidden, "connection.autoconnect"), "no") << "left alone";
    EXPECT_EQ(field(memory, "connection.autoconnect"), "no");
}

TEST_F(NetworkManagerTest, OurWritersTakeTurns) {
    const auto preferences = systemNetworkPreferences();
    auto first = preferences->open("first");
    auto second = preferences->open("second");
    ASSERT_TRUE(first && second);
    ASSERT_TRUE((*first)->lock());
    std::atomic<bool> secondHasIt{false};
    std::thread waiter([&] {
        EXPECT_TRUE((*second)->lock());
        secondHasIt = true;
        (*second)->unlock();
    });
    std::this_thread::sleep_for(200ms);
    EXPECT_FALSE(secondHasIt) << "a second writer got in while the first held the lock";
    (*first)->unlock();
    waiter.join();
    EXPECT_TRUE(secondHasIt);
}

TEST_F(NetworkManagerTest, WithoutNetworkManagerChangesAreRefusedAndReadingsGoOn) {
    const std::string lab = addProfile({.id = "Lab", .interfaceName = "nv0"});
    world_->stopNetworkManager();
    std::string reason;
    EXPECT_EQ(switchService(lab, true, &reason), AdminError::configurationFailed);
    EXPECT_EQ(reason, "NetworkManager is not running");
    const NetworkMetadata metadata = SystemConfigurationReader::read();
    EXPECT_TRUE(metadata.services.empty());
    EXPECT_TRUE(metadata.interfaces.contains("nv0")) << "the kernel's part is still there";
}

TEST_F(NetworkManagerTest, AHungNetworkManagerCostsTimeoutsNotAHang) {
    const std::string lab = addProfile({.id = "Lab", .interfaceName = "nv0"});
    world_->stopNetworkManager();
    // Someone holds NetworkManager's name and never answers.
    auto squatter = bus::openSystemBus();
    ASSERT_TRUE(squatter);
    ASSERT_GE(bus::sd().sd_bus_request_name(squatter->get(), nm::kService, 0), 0);

    const auto started = std::chrono::steady_clock::now();
    std::string reason;
    EXPECT_EQ(switchService(lab, false, &reason), AdminError::configurationFailed);
    EXPECT_NE(reason.find("timed out"), std::string::npos) << reason;
    const NetworkMetadata metadata = SystemConfigurationReader::read();
    EXPECT_TRUE(metadata.services.empty());
    // One bounded wait for the change, one each for the reading's two connections.
    EXPECT_LT(std::chrono::steady_clock::now() - started, 4 * bus::kCallTimeout);
}

TEST_F(NetworkManagerTest, TheWatcherReportsProfilesAndConnections) {
    std::mutex mutex;
    std::condition_variable arrived;
    std::set<std::string> seen;
    auto queue = std::make_shared<SerialQueue>();
    NetworkChangeWatcher watcher(queue, [&](const std::vector<std::string>& keys) {
        const std::lock_guard guard(mutex);
        seen.insert(keys.begin(), keys.end());
        arrived.notify_all();
    });
    auto sawKey = [&](const std::string& key) {
        std::unique_lock guard(mutex);
        return arrived.wait_for(guard, 10s, [&] { return seen.contains(key); });
    };
    const std::string lab = addProfile({.id = "Lab", .interfaceName = "nv0"});
    EXPECT_TRUE(sawKey("Setup:/Network/Service/" + lab));
    EXPECT_TRUE(sawKey("Setup:/Network/Service/" + lab + "/Interface"));
    ASSERT_EQ(switchService(lab, true), std::nullopt);
    EXPECT_TRUE(sawKey("State:/Network/Service/" + lab + "/IPv4")) << "its connection came up";
    {
        const std::lock_guard guard(mutex);
        seen.clear();
    }
    ASSERT_TRUE(capture("nmcli connection delete " + lab));
    EXPECT_TRUE(sawKey("Setup:/Network/Service/" + lab)) << "a removed profile is a change too";
    EXPECT_TRUE(sawKey("State:/Network/Service/" + lab + "/IPv4"));
}

}  // namespace
}  // namespace netvane
