#include "netcore/sysconfig/tunnel_owners.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <vector>

#include "../../temporary_directory.h"
#include "support/files.h"
#include "support/plist/plist.h"

namespace netvane {
namespace {

class FakeBundles final : public BundleInformation {
public:
    std::map<std::string, plist::Dictionary> bundles;
    mutable std::vector<std::string> asked;

    std::optional<plist::Dictionary> infoDictionary(const std::string& bundlePath) const override {
        asked.push_back(bundlePath);
        auto it = bundles.find(bundlePath);
        if (it == bundles.end()) return std::nullopt;
        return it->second;
    }
};

nv_utun_owner_t record(std::int32_t pid, const char* ifname) {
    nv_utun_owner_t r{};
    r.pid = pid;
    r.unit = 1;
    std::strncpy(r.ifname, ifname, sizeof r.ifname - 1);
    return r;
}

TEST(TunnelOwnerName, SystemProgramsAndPlainExecutablesByFileName) {
    FakeBundles bundles;
    bundles.bundles["/System/Foo.app"] = plist::Dictionary{{"CFBundleDisplayName", "Never"}};
    EXPECT_EQ(TunnelOwners::displayName("/usr/sbin/openvpn", bundles), "openvpn");
    EXPECT_EQ(TunnelOwners::displayName("/System/Foo.app/Contents/MacOS/foo", bundles), "foo");
    EXPECT_EQ(TunnelOwners::displayName("/Library/Apple/x.app/y", bundles), "y");
    EXPECT_EQ(TunnelOwners::displayName("/opt/bin/vpnd", bundles), "vpnd");
    EXPECT_EQ(TunnelOwners::displayName("", bundles), "");
    EXPECT_EQ(TunnelOwners::displayName("/", bundles), "/");
    EXPECT_TRUE(bundles.asked.empty());
}

TEST(TunnelOwnerName, OutermostApplicationElseInnermostBundle) {
    FakeBundles bundles;
    EXPECT_EQ(TunnelOwners::displayName(
                  "/Applications/A.app/Contents/Library/SystemExtensions/B.systemextension/Contents/MacOS/B", bundles),
              "A");
    EXPECT_EQ(TunnelOwners::displayName("/Library/Foo/B.appex/Contents/MacOS/C.xpc/x", bundles), "C");
    EXPECT_EQ(TunnelOwners::displayName("/opt/Tunnel.systemextension/Contents/MacOS/t", bundles), "Tunnel");
    EXPECT_EQ(bundles.asked, (std::vector<std::string>{"/Applications/A.app", "/Library/Foo/B.appex/Contents/MacOS/C.xpc",
                                                       "/opt/Tunnel.systemextension"}));
}

TEST(TunnelOwnerName, DisplayNameThenNameThenComponent) {
    FakeBundles bundles;
    bundles.bundles["/Applications/Client.app"] = plist::Dictionary{{"CFBundleDisplayName", 7}, {"CFBundleName", "Client VPN"}};
    bundles.bundles["/Applications/Shown.app"] = plist::Dictionary{{"CFBundleName", "Named"}, {"CFBundleDisplayName", ""}};
    bundles.bundles["/Applications/Bare.app"] = plist::Dictionary{{"CFBundleIdentifier", "x"}};
    EXPECT_EQ(TunnelOwners::displayName("/Applications/Client.app/Contents/MacOS/Client", bundles), "Client VPN");
    EXPECT_EQ(TunnelOwners::displayName("/Applications/Shown.app/Contents/MacOS/s", bundles), "");
    EXPECT_EQ(TunnelOwners::displayName("/Applications/Bare.app/Contents/MacOS/b", bundles), "Bare");
}

TEST(TunnelOwnersScan, LastRecordWinsAndUnreadablePathsGiveEmptyNames) {
    FakeBundles bundles;
    const std::vector<nv_utun_owner_t> records = {record(10, "tun0"), record(20, "wg-tun"), record(30, "tun0"),
                                                  record(40, "tun1")};
    auto path = [](std::int32_t pid) { return pid == 40 ? std::string() : "/opt/vpn" + std::to_string(pid); };
    TunnelOwnerMap owners = TunnelOwners::fromRecords(records, path, bundles);
    EXPECT_EQ(owners, (TunnelOwnerMap{{"tun0", {30, "vpn30", "/opt/vpn30"}},
                                      {"wg-tun", {20, "vpn20", "/opt/vpn20"}},
                                      {"tun1", {40, "", ""}}}));
    EXPECT_TRUE(TunnelOwners::fromRecords({}, path, bundles).empty());
}

TEST(TunnelOwnersScan, AtMostTheCapacityIsConsidered) {
    FakeBundles bundles;
    std::vector<nv_utun_owner_t> records(TunnelOwners::kCapacity, record(1, "tun0"));
    records.push_back(record(2, "tun0"));
    TunnelOwnerMap owners = TunnelOwners::fromRecords(records, [](std::int32_t) { return std::string(); }, bundles);
    EXPECT_EQ(owners.at("tun0").pid, 1);
}

TEST(TunnelOwnersScan, KernelControlUnitsNameTheTunnelBelowThem) {
    EXPECT_EQ(utunInterfaceName(1), "utun0");
    EXPECT_EQ(utunInterfaceName(10), "utun9");
    EXPECT_EQ(utunInterfaceName(0xFFFFFFFFu), "utun4294967294");
    EXPECT_DEATH(utunInterfaceName(0), "");
}

TEST(TunnelOwnerCoding, KeysInOrderAndUnknownKeysIgnored) {
    TunnelOwner owner{42, "Client", "/opt/client"};
    plist::Value value = owner.encode();
    std::vector<std::string> keys;
    for (const auto& [key, ignored] : *value.dictionary()) keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{"pid", "name", "path"}));
    auto decoded = TunnelOwner::decode(value);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(*decoded, owner);

    plist::Dictionary extra = *value.dictionary();
    extra.append("colour", "blue");
    ASSERT_TRUE(TunnelOwner::decode(extra));
    EXPECT_FALSE(TunnelOwner::decode(plist::Dictionary{{"pid", 1}, {"name", "x"}}));
    EXPECT_FALSE(TunnelOwner::decode(plist::Dictionary{{"pid", 1ll << 40}, {"name", "x"}, {"path", "y"}}));
}

TEST(SystemBundleInformation, ReadsTheBundlesInfoPlist) {
    testing::TemporaryDirectory directory;
    const std::string app = directory.path() + "/Client.app";
    ASSERT_TRUE(createDirectories(app + "/Contents/MacOS", 0755));
    auto xml = plist::encodeXml(plist::Dictionary{{"CFBundleName", "Client"}, {"CFBundleDisplayName", "Client VPN"}});
    ASSERT_TRUE(xml);
    ASSERT_TRUE(writeFileAtomically(app + "/Contents/Info.plist", *xml));
    EXPECT_EQ(TunnelOwners::displayName(app + "/Contents/MacOS/client", systemBundleInformation()), "Client VPN");

    // A flat bundle keeps its Info.plist at the top.
    const std::string flat = directory.path() + "/Agent.xpc";
    ASSERT_TRUE(createDirectories(flat, 0755));
    auto binary = plist::encodeBinary(plist::Dictionary{{"CFBundleName", "Agent Helper"}});
    ASSERT_TRUE(binary);
    ASSERT_TRUE(writeFileAtomically(flat + "/Info.plist", *binary));
    EXPECT_EQ(TunnelOwners::displayName(flat + "/agent", systemBundleInformation()), "Agent Helper");

    // Unreadable or foreign information falls back to the component's name.
    const std::string broken = directory.path() + "/Broken.app";
    ASSERT_TRUE(createDirectories(broken + "/Contents", 0755));
    ASSERT_TRUE(writeFileAtomically(broken + "/Contents/Info.plist", std::string_view("not a plist")));
    EXPECT_EQ(TunnelOwners::displayName(broken + "/Contents/MacOS/b", systemBundleInformation()), "Broken");
    EXPECT_EQ(TunnelOwners::displayName(directory.path() + "/Missing.app/m", systemBundleInformation()), "Missing");
}

TEST(ExecutablePath, OwnProcessAndVanishedProcess) {
    char self[4096] = {};
    ASSERT_GT(::readlink("/proc/self/exe", self, sizeof self - 1), 0);
    EXPECT_EQ(executablePath(::getpid()), self);
    EXPECT_EQ(executablePath(-1), "");
}

}  // namespace
}  // namespace netvane
