#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "netcore/shim/nv_shim.h"

namespace {

constexpr int kEthernet = 0x20;
constexpr int kTokenRing = 0x40;
constexpr int kFDDI = 0x60;
constexpr int kWiFi = 0x80;
constexpr int kFullDuplex = 0x00100000;
constexpr int kFlowControl = 0x00400000;

std::string text(int word, std::size_t size = 128) {
    char buffer[128];
    std::memset(buffer, 'x', sizeof buffer);
    nv_media_word_string(word, buffer, size);
    return std::string(buffer);
}

TEST(MediaWordString, SubtypeThenOptionsInBrackets) {
    EXPECT_EQ(text(kEthernet | 0x10 | kFullDuplex | kFlowControl), "1000baseT <full-duplex,flow-control>");
    EXPECT_EQ(text(kEthernet), "autoselect");
    EXPECT_EQ(text(kEthernet | 0x10 | 0x08000000 | 0x00800000), "1000baseT <energy-efficient-ethernet,hw-loopback>");
    EXPECT_EQ(text(kWiFi | 1), "manual");
    EXPECT_EQ(text(kFDDI | 2), "none");
}

TEST(MediaWordString, ExtendedSubtypesUseBitsSixteenToNineteen) {
    EXPECT_EQ(text(kEthernet | 0x10000), "2500BaseSX");
    EXPECT_EQ(text(kEthernet | 0x2001F | kFullDuplex), "100GBase-CP2 <full-duplex>");
    EXPECT_EQ(text(kEthernet | 0x30015), "400G-AUI8");
    // Without the extended bits the same low bits name a classic medium.
    EXPECT_EQ(text(kEthernet | 0x15), "10Gbase-T");
}

TEST(MediaWordString, SharedOptionsComeBeforeTypeOptions) {
    EXPECT_EQ(text(kTokenRing | 5 | 0x800 | 0x200 | kFullDuplex), "UTP/4Mbit <full-duplex,EarlyTokenRelease,AllRoutes>");
    EXPECT_EQ(text(kFDDI | 3 | 0x100), "Single-mode <Dual-attach>");
    // Option bits of another type mean nothing here.
    EXPECT_EQ(text(kWiFi | 7 | 0x200 | 0x100), "DS11");
    EXPECT_EQ(text(kEthernet | 0x6 | 0x400), "100baseTX");
}

TEST(MediaWordString, UnknownTypeOrSubtypeIsNamedAsSuch) {
    EXPECT_EQ(text(0), "<unknown type>");
    EXPECT_EQ(text(0xA0 | 0x10), "<unknown type>");
    EXPECT_EQ(text(0xE0 | kFullDuplex), "<unknown type>");
    EXPECT_EQ(text(kEthernet | 0x1000E | kFullDuplex), "<unknown subtype>");
    EXPECT_EQ(text(kWiFi | 0x10), "<unknown subtype>");
    EXPECT_EQ(text(kTokenRing | 7), "<unknown subtype>");
}

TEST(MediaWordString, SignBitIsJustAnotherBit) {
    EXPECT_EQ(text(static_cast<int>(0x80000000u | kEthernet | 0x10 | kFullDuplex)), "1000baseT <full-duplex>");
}

TEST(MediaWordString, EveryListedSubtypeIsKnownOnce) {
    auto recognised = [](int type) {
        std::set<std::string> names;
        for (int extended = 0; extended < 16; ++extended) {
            for (int low = 0; low < 32; ++low) {
                std::string name = text(type | extended << 16 | low);
                if (name != "<unknown subtype>") {
                    EXPECT_TRUE(names.insert(name).second) << name;
                }
            }
        }
        return names.size();
    };
    EXPECT_EQ(recognised(kEthernet), 3u + 114u);
    EXPECT_EQ(recognised(kTokenRing), 3u + 4u);
    EXPECT_EQ(recognised(kFDDI), 3u + 3u);
    EXPECT_EQ(recognised(kWiFi), 3u + 7u);
}

TEST(MediaWordString, WritesAreBoundedAndTerminated) {
    char untouched[4] = {'a', 'b', 'c', 'd'};
    nv_media_word_string(kEthernet, untouched, 0);
    EXPECT_EQ(std::string(untouched, 4), "abcd");
    nv_media_word_string(kEthernet, nullptr, 0);

    EXPECT_EQ(text(kEthernet | 0x10 | kFullDuplex, 1), "");
    EXPECT_EQ(text(kEthernet | 0x10 | kFullDuplex, 5), "1000");
    EXPECT_EQ(text(kEthernet | 0x10 | kFullDuplex, 14), "1000baseT <fu");
    EXPECT_EQ(text(kEthernet | 0x10 | kFullDuplex, 24), "1000baseT <full-duplex>");
    EXPECT_EQ(text(0, 8), "<unknow");
}

TEST(MediaStatus, ValidAndActiveBits) {
    EXPECT_EQ(nv_media_status_valid(0), 0);
    EXPECT_EQ(nv_media_status_valid(3), 1);
    EXPECT_EQ(nv_media_status_valid(2), 0);
    EXPECT_EQ(nv_media_status_active(2), 1);
    EXPECT_EQ(nv_media_status_active(3), 1);
    EXPECT_EQ(nv_media_status_active(1), 0);
    EXPECT_EQ(nv_media_status_active(-1), 1);
}

}  // namespace
