#include "netcore/interfaces/bit_names.h"

#include <gtest/gtest.h>

#include "netcore/interfaces/interface_snapshot.h"

namespace netvane {
namespace {

using Names = std::vector<std::string>;

TEST(BitNames, FormatIsLowerCaseHexThenNames) {
    EXPECT_EQ(BitNames::interfaceFlags().format(0x8863), "8863<UP,BROADCAST,SMART,RUNNING,SIMPLEX,MULTICAST>");
    EXPECT_EQ(BitNames::nd6Flags().format(0xA), "a<ACCEPT_RTADV,IFDISABLED>");
    EXPECT_EQ(BitNames::interfaceFlags().format(0), "0<>");
    EXPECT_EQ(BitNames::interfaceFlags().format(0x10000), "10000<>");
    EXPECT_EQ(BitNames::capabilities().format(0xFFFFFFFF).substr(0, 17), "ffffffff<RXCSUM,T");
}

TEST(BitNames, NamesFollowTableOrder) {
    EXPECT_EQ(BitNames::nd6Flags().names(0xFFFFFFFF),
              (Names{"PERFORMNUD", "ACCEPT_RTADV", "PREFER_SOURCE", "IFDISABLED", "DONT_SET_IFROUTE", "PROXY_PREFIXES",
                     "IGNORE_NA", "INSECURE", "REPLICATED", "DAD"}));
    EXPECT_EQ(BitNames::capabilities().names(0x8001), (Names{"RXCSUM", "LRO_NUM_SEG"}));
    EXPECT_EQ(BitNames::interfaceFlags().names(0x8000), (Names{"MULTICAST"}));
    EXPECT_EQ(BitNames::interfaceFlags().names(0xFFFF).size(), 16u);
}

TEST(BitNames, TableOrderNotValueOrderDecides) {
    BitNames custom{{{5, "five"}, {0, "zero"}, {40, "never"}, {31, "top"}}};
    EXPECT_EQ(custom.names(0xFFFFFFFF), (Names{"five", "zero", "top"}));
    EXPECT_EQ(custom.format(0x80000021), "80000021<five,zero,top>");
}

TEST(BitNamesDeathTest, NegativeOrOversizedBitNumberStopsTheProgram) {
    BitNames negative{{{-1, "bad"}}};
    EXPECT_DEATH(negative.names(1), "bit number");
    BitNames oversized{{{std::int64_t{1} << 32, "bad"}}};
    EXPECT_DEATH(oversized.names(1), "bit number");
    BitNames largestAllowed{{{0xFFFFFFFF, "never"}}};
    EXPECT_TRUE(largestAllowed.names(0xFFFFFFFF).empty());
}

TEST(BitNames, EqualTablesAreEqualAndHashAlike) {
    std::hash<BitNames> hash;
    const BitNames copy = BitNames::interfaceFlags();
    EXPECT_EQ(copy, BitNames::interfaceFlags());
    EXPECT_EQ(hash(copy), hash(BitNames::interfaceFlags()));
    EXPECT_NE(BitNames::interfaceFlags(), BitNames::capabilities());

    // Each difference a table can have: a bit number, a name, the order, the length.
    const BitNames base{{{0, "a"}, {1, "b"}}};
    const std::vector<BitNames> others = {
        BitNames{{{0, "a"}, {2, "b"}}},
        BitNames{{{0, "a"}, {1, "c"}}},
        BitNames{{{1, "b"}, {0, "a"}}},
        BitNames{{{0, "a"}}},
        BitNames{{{0, "ab"}}},
    };
    for (const BitNames& other : others) {
        EXPECT_NE(other, base);
        EXPECT_NE(hash(other), hash(base));
    }
}

TEST(IPv6AddressFlags, NamesInDeliberateOrder) {
    IPv6Address address{"fe80::1", 64, 4, 0x202};
    EXPECT_EQ(address.flagNames(), (Names{"tentative", "optimistic"}));
    address.flags = 0xFFFFFFFF;
    EXPECT_EQ(address.flagNames(), (Names{"anycast", "tentative", "optimistic", "duplicated", "detached", "deprecated",
                                          "autoconf", "temporary", "dynamic", "secured", "clat46"}));
    address.flags = 0x20 | 0x800;  // no names for these bits
    EXPECT_TRUE(address.flagNames().empty());
}

}  // namespace
}  // namespace netvane
