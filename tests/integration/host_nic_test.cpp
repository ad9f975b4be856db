// The machine's own network cards, read in the machine's own namespace: a
// wrong hardware decision would silently take media and line rate from every
// real card. Which interfaces a device backs is told here independently of
// the reader (the interface's sysfs directory resolves outside
// /sys/devices/virtual and links to its device), and what the kernel says of
// a card (its type, its speed) is read from sysfs too.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "netcore/interfaces/interface_reader.h"

namespace netvane {
namespace {

namespace fs = std::filesystem;

std::optional<long> sysfsNumber(const std::string& name, const char* file) {
    std::ifstream in("/sys/class/net/" + name + "/" + file);
    long value = 0;
    if (!(in >> value)) return std::nullopt;  // a link that is down has no speed to read
    return value;
}

std::string devtype(const std::string& name) {
    std::ifstream in("/sys/class/net/" + name + "/uevent");
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("DEVTYPE=", 0) == 0) return line.substr(8);
    }
    return "";
}

std::vector<std::string> deviceBackedInterfaces() {
    std::vector<std::string> names;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator("/sys/class/net", error)) {
        const fs::path directory = fs::canonical(entry.path(), error);
        if (error || directory.string().rfind("/sys/devices/virtual/", 0) == 0) continue;
        if (fs::exists(entry.path() / "device", error)) names.push_back(entry.path().filename().string());
    }
    return names;
}

TEST(HostNetworkCard, ADeviceBackedInterfaceIsReadAsHardware) {
    const std::vector<std::string> cards = deviceBackedInterfaces();
    if (cards.empty()) GTEST_SKIP() << "no interface of this machine is backed by a device";
    const std::vector<InterfaceSnapshot> snapshots = InterfaceReader().snapshot();
    for (const std::string& name : cards) {
        SCOPED_TRACE(name);
        const auto snapshot = std::find_if(snapshots.begin(), snapshots.end(),
                                           [&](const InterfaceSnapshot& s) { return s.name == name; });
        ASSERT_NE(snapshot, snapshots.end());
        const bool radio = fs::exists("/sys/class/net/" + name + "/phy80211") ||
                           fs::exists("/sys/class/net/" + name + "/wireless") || devtype(name) == "wlan";
        if (radio) {
            EXPECT_EQ(snapshot->functionalType, FunctionalType::wifiInfra);
        } else if (sysfsNumber(name, "type") == 1 && devtype(name).empty()) {
            // Only hardware is a wire: a wrong decision reads a card as unknown.
            EXPECT_EQ(snapshot->functionalType, FunctionalType::wired);
        }
        const std::optional<long> speed = sysfsNumber(name, "speed");
        if (speed && *speed > 0) {
            EXPECT_EQ(snapshot->baudrate, static_cast<std::uint64_t>(*speed) * 1'000'000u);
            ASSERT_TRUE(snapshot->media) << "a card with a speed has a medium";
            EXPECT_EQ(snapshot->media->status,
                      sysfsNumber(name, "carrier") == 1 ? MediaStatus::active : MediaStatus::inactive);
        } else {
            // A virtual machine's card may report no speed; then no line rate either.
            EXPECT_EQ(snapshot->baudrate, 0u);
        }
    }
}

// The other side of the same decision on the same machine: an Ethernet-typed
// interface that no device backs (a bridge, a veth, an ifb) is no wire and
// has no medium, whatever speed its driver claims.
TEST(HostNetworkCard, AnInterfaceNoDeviceBacksHasNoMedium) {
    const std::vector<std::string> cards = deviceBackedInterfaces();
    std::size_t seen = 0;
    for (const InterfaceSnapshot& snapshot : InterfaceReader().snapshot()) {
        if (std::find(cards.begin(), cards.end(), snapshot.name) != cards.end()) continue;
        if (sysfsNumber(snapshot.name, "type") != 1) continue;
        SCOPED_TRACE(snapshot.name);
        ++seen;
        EXPECT_NE(snapshot.functionalType, FunctionalType::wired);
        EXPECT_FALSE(snapshot.media);
        EXPECT_EQ(snapshot.baudrate, 0u);
    }
    if (seen == 0) GTEST_SKIP() << "no Ethernet-typed virtual interface in this namespace";
}

}  // namespace
}  // namespace netvane
