#include "netcore/interfaces/interface_snapshot.h"

#include <gtest/gtest.h>

#include <unordered_set>

namespace netvane {
namespace {

InterfaceSnapshot sample() {
    InterfaceSnapshot s;
    s.name = "en0";
    s.index = 4;
    s.flags = 0x8863;
    s.mtu = 1500;
    s.ifType = 6;
    s.counters.bytesIn = 1000;
    s.linkAddress = LinkAddress{{0x00, 0x1a, 0xff, 0x01, 0x02, 0x03}, 6};
    s.ipv4.push_back(IPv4Address{"192.0.2.7", "255.255.255.0", 24, "192.0.2.255", std::nullopt});
    s.ipv6.push_back(IPv6Address{"fe80::1", 64, 4, 0x2});
    s.media = MediaInfo{"autoselect", "1000baseT <full-duplex>", MediaStatus::active};
    s.capabilities = 0x3;
    s.functionalType = FunctionalType::wired;
    return s;
}

TEST(InterfaceSnapshot, EveryFieldTakesPartInEqualityAndHash) {
    const InterfaceSnapshot base = sample();
    std::hash<InterfaceSnapshot> hash;
    EXPECT_EQ(base, sample());
    EXPECT_EQ(hash(base), hash(sample()));

    std::vector<InterfaceSnapshot> variants(14, base);
    variants[0].name = "en1";
    variants[1].index = 5;
    variants[2].flags = 0x8862;
    variants[3].mtu = 9000;
    variants[4].ifType = 24;
    variants[5].baudrate = 1;
    variants[6].counters.dropsIn = 1;
    variants[7].linkAddress.reset();
    variants[8].ipv4[0].broadcast.reset();
    variants[9].ipv6[0].flags = 0;
    variants[10].media->active.reset();
    variants[11].capabilities.reset();
    variants[12].nd6Flags = 0;
    variants[13].functionalType = FunctionalType::unknown;
    std::unordered_set<std::size_t> hashes{hash(base)};
    for (const auto& variant : variants) {
        EXPECT_NE(variant, base);
        hashes.insert(hash(variant));
    }
    EXPECT_EQ(hashes.size(), variants.size() + 1) << "some field changes do not change the hash";
}

TEST(InterfaceSnapshot, OptionalPresenceIsNotConfusedWithValue) {
    std::hash<IPv4Address> hash;
    IPv4Address a{"10.0.0.1", std::nullopt, std::nullopt, "10.0.0.255", std::nullopt};
    IPv4Address b{"10.0.0.1", std::nullopt, std::nullopt, std::nullopt, "10.0.0.255"};
    EXPECT_NE(a, b);
    EXPECT_NE(hash(a), hash(b));
}

TEST(InterfaceSnapshot, LinkActiveNeedsUpAndRunningAndNoInactiveMedium) {
    InterfaceSnapshot s;
    s.flags = InterfaceSnapshot::kFlagUp | InterfaceSnapshot::kFlagRunning;
    EXPECT_TRUE(s.isLinkActive()) << "no media at all";
    s.media = MediaInfo{"autoselect", std::nullopt, MediaStatus::unknown};
    EXPECT_TRUE(s.isLinkActive());
    s.media->status = MediaStatus::active;
    EXPECT_TRUE(s.isLinkActive());
    s.media->status = MediaStatus::inactive;
    EXPECT_FALSE(s.isLinkActive());

    s.media.reset();
    s.flags = InterfaceSnapshot::kFlagUp;
    EXPECT_FALSE(s.isLinkActive());
    s.flags = InterfaceSnapshot::kFlagRunning;
    EXPECT_FALSE(s.isLinkActive());
}

TEST(InterfaceSnapshot, FlagPredicates) {
    InterfaceSnapshot s;
    s.flags = 0x8851;  // UP, POINTOPOINT, RUNNING, MULTICAST
    EXPECT_TRUE(s.isUp());
    EXPECT_TRUE(s.isRunning());
    EXPECT_TRUE(s.isPointToPoint());
    EXPECT_FALSE(s.isLoopback());
    EXPECT_TRUE(s.hasFlag(0x8000));
    EXPECT_FALSE(s.hasFlag(0x2));
    EXPECT_EQ(s.id(), s.name);
}

TEST(FunctionalType, RawValuesUpToEightHaveCases) {
    EXPECT_EQ(functionalTypeFromRaw(0), FunctionalType::unknown);
    EXPECT_EQ(functionalTypeFromRaw(3), FunctionalType::wifiInfra);
    EXPECT_EQ(functionalTypeFromRaw(8), FunctionalType::management);
    EXPECT_EQ(functionalTypeFromRaw(9), std::nullopt);
    EXPECT_EQ(functionalTypeFromRaw(0xFFFFFFFF), std::nullopt);
    EXPECT_EQ(static_cast<std::uint32_t>(FunctionalType::companionLink), 7u);
}

TEST(LinkAddress, DescriptionIsLowerCaseHexPairs) {
    EXPECT_EQ((LinkAddress{{0x00, 0x1A, 0xFF}, 6}).description(), "00:1a:ff");
    EXPECT_EQ((LinkAddress{{}, 6}).description(), "");
    EXPECT_EQ((LinkAddress{{0xAB}, 6}).description(), "ab");
}

TEST(MediaInfo, DescriptionShowsActiveOnlyWhenPresent) {
    EXPECT_EQ((MediaInfo{"autoselect", std::nullopt, MediaStatus::active}).description(), "autoselect");
    EXPECT_EQ((MediaInfo{"autoselect", "1000baseT <full-duplex>", MediaStatus::active}).description(),
              "autoselect (1000baseT <full-duplex>)");
}

}  // namespace
}  // namespace netvane
