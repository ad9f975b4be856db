// The reader's address rules on synthetic address-list entries. The names
// used here exist on no machine, so every kernel request fails and leaves
// its field at the default.
#include "netcore/interfaces/interface_reader.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <deque>

#include "support/unicode.h"

namespace netvane {
namespace {

// Owns synthetic entries and the socket addresses they point at.
class AddressList {
public:
    ifaddrs& add(const char* name, unsigned flags) {
        ifaddrs& entry = entries_.emplace_back();
        entry.ifa_name = const_cast<char*>(name);
        entry.ifa_flags = flags;
        if (entries_.size() > 1) entries_[entries_.size() - 2].ifa_next = &entry;
        return entry;
    }
    sockaddr* ipv4(const char* text) {
        sockaddr_in& a = v4_.emplace_back();
        a.sin_family = AF_INET;
        EXPECT_EQ(inet_pton(AF_INET, text, &a.sin_addr), 1);
        return reinterpret_cast<sockaddr*>(&a);
    }
    sockaddr* ipv6(const char* text, std::uint32_t scope = 0) {
        sockaddr_in6& a = v6_.emplace_back();
        a.sin6_family = AF_INET6;
        a.sin6_scope_id = scope;
        EXPECT_EQ(inet_pton(AF_INET6, text, &a.sin6_addr), 1);
        return reinterpret_cast<sockaddr*>(&a);
    }
    sockaddr* link(int index, std::initializer_list<std::uint8_t> bytes) {
        sockaddr_ll& a = links_.emplace_back();
        a.sll_family = AF_PACKET;
        a.sll_ifindex = index;
        a.sll_hatype = 1;
        a.sll_halen = static_cast<unsigned char>(bytes.size());
        std::copy(bytes.begin(), bytes.end(), a.sll_addr);
        return reinterpret_cast<sockaddr*>(&a);
    }
    const ifaddrs* head() const { return entries_.empty() ? nullptr : &entries_.front(); }

private:
    std::deque<ifaddrs> entries_;
    std::deque<sockaddr_in> v4_;
    std::deque<sockaddr_in6> v6_;
    std::deque<sockaddr_ll> links_;
};

int prefixOf(std::initializer_list<std::uint8_t> mask, std::size_t length, int family) {
    std::array<std::uint8_t, 28> address{};
    std::copy(mask.begin(), mask.end(), address.begin() + (family == AF_INET6 ? 8 : 4));
    return prefixLength(address.data(), length, family);
}

TEST(PrefixLength, LengthByteBoundsTheMask) {
    EXPECT_EQ(prefixOf({0xFF}, 5, AF_INET), 8);  // the rest of the mask is missing, so zero
    EXPECT_EQ(prefixOf({0xFF, 0xFF, 0xF0, 0x00}, 8, AF_INET), 20);
    EXPECT_EQ(prefixOf({0xFF, 0x00, 0xFF, 0x00}, 8, AF_INET), 8);  // only the leading run counts
    EXPECT_EQ(prefixOf({0xFF, 0xFF, 0xFF, 0xFF}, 16, AF_INET), 32);
    EXPECT_EQ(prefixOf({0xFF, 0xFE, 0xFF}, 16, AF_INET), 15);
    EXPECT_EQ(prefixOf({0xFF}, 4, AF_INET), 0);
    EXPECT_EQ(prefixOf({0xFF}, 0, AF_INET), 0);
    EXPECT_EQ(prefixOf({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, 28, AF_INET6), 64);
    EXPECT_EQ(prefixOf({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, 12, AF_INET6), 32);
    std::array<std::uint8_t, 28> all{};
    all.fill(0xFF);
    EXPECT_EQ(prefixLength(all.data(), all.size(), AF_INET6), 128);
}

TEST(IPv4Entry, BroadcastDestinationAndNetmaskRules) {
    AddressList list;
    ifaddrs& broadcast = list.add("nvx0", IFF_UP | IFF_BROADCAST);
    broadcast.ifa_addr = list.ipv4("10.1.2.3");
    broadcast.ifa_netmask = list.ipv4("255.255.240.0");
    broadcast.ifa_broadaddr = list.ipv4("10.1.15.255");
    IPv4Address a = ipv4Address(broadcast);
    EXPECT_EQ(a, (IPv4Address{"10.1.2.3", "255.255.240.0", 20, "10.1.15.255", std::nullopt}));

    broadcast.ifa_broadaddr = list.ipv4("0.0.0.0");
    EXPECT_FALSE(ipv4Address(broadcast).broadcast);

    ifaddrs& pointToPoint = list.add("nvtun0", IFF_UP | IFF_POINTOPOINT | IFF_BROADCAST);
    pointToPoint.ifa_addr = list.ipv4("10.8.0.1");
    pointToPoint.ifa_dstaddr = list.ipv4("10.8.0.2");
    a = ipv4Address(pointToPoint);
    EXPECT_EQ(a.destination, "10.8.0.2");
    EXPECT_FALSE(a.broadcast);
    EXPECT_FALSE(a.netmask);
    EXPECT_FALSE(a.prefixLength);

    ifaddrs& neither = list.add("nvx1", IFF_UP);
    neither.ifa_dstaddr = list.ipv4("10.0.0.9");
    // A netmask of another family gives no text, but a prefix all the same.
    neither.ifa_netmask = list.ipv6("ffff:ff00::");
    a = ipv4Address(neither);
    EXPECT_EQ(a.address, "0.0.0.0");
    EXPECT_FALSE(a.broadcast);
    EXPECT_FALSE(a.destination);
    EXPECT_FALSE(a.netmask);
    EXPECT_TRUE(a.prefixLength);
}

TEST(IPv6Entry, EmbeddedScopeIsMovedOutOfLinkLocalAddresses) {
    AddressList list;
    InterfaceReader reader;
    ifaddrs& entry = list.add("nvx0", IFF_UP);
    entry.ifa_addr = list.ipv6("fe80:4::1");
    entry.ifa_netmask = list.ipv6("ffff:ffff:ffff:ffff::");
    IPv6Address a = reader.ipv6Address(entry, "nvx0");
    EXPECT_EQ(a, (IPv6Address{"fe80::1", 64, 4, 0}));

    entry.ifa_addr = list.ipv6("fe80:4::1", 9);  // an explicit scope wins
    EXPECT_EQ(reader.ipv6Address(entry, "nvx0").scopeID, 9u);
    entry.ifa_addr = list.ipv6("fe80::1", 3);
    EXPECT_EQ(reader.ipv6Address(entry, "nvx0").address, "fe80::1");
    EXPECT_EQ(reader.ipv6Address(entry, "nvx0").scopeID, 3u);

    // Not link-local: the bytes stay as they are.
    entry.ifa_addr = list.ipv6("fd00:4::1");
    entry.ifa_netmask = nullptr;
    a = reader.ipv6Address(entry, "nvx0");
    EXPECT_EQ(a.address, "fd00:4::1");
    EXPECT_EQ(a.scopeID, 0u);
    EXPECT_FALSE(a.prefixLength);
}

TEST(InterfaceReader, OneSnapshotPerNameInFirstSeenOrder) {
    AddressList list;
    list.add("nvb0", IFF_UP | IFF_BROADCAST).ifa_addr = list.link(0, {1, 2, 3, 4, 5, 6});  // index 0: ignored
    ifaddrs& onlyV6 = list.add("nva0", IFF_UP | IFF_RUNNING);
    onlyV6.ifa_addr = list.link(4242, {0x00, 0x1a, 0xff, 1, 2, 3});
    list.add("nva0", 0).ifa_addr = list.ipv6("fd00::5");
    list.add("nvb0", IFF_UP).ifa_addr = list.ipv4("192.168.7.1");
    list.add("nvc0", IFF_UP);  // no address at all
    list.add("nva0", 0).ifa_addr = list.link(4242, {});  // no link-layer bytes

    std::vector<InterfaceSnapshot> snapshots = InterfaceReader().snapshot(list.head());
    ASSERT_EQ(snapshots.size(), 3u);
    EXPECT_EQ(snapshots[0].name, "nvb0");
    EXPECT_EQ(snapshots[1].name, "nva0");
    EXPECT_EQ(snapshots[2].name, "nvc0");

    const InterfaceSnapshot& b = snapshots[0];
    EXPECT_EQ(b.index, 0u);
    EXPECT_FALSE(b.linkAddress);
    EXPECT_EQ(b.flags, 0x3u);  // the first entry's flags are kept
    ASSERT_EQ(b.ipv4.size(), 1u);

    const InterfaceSnapshot& a = snapshots[1];
    EXPECT_EQ(a.index, 4242u);
    EXPECT_TRUE(a.ipv4.empty());
    ASSERT_EQ(a.ipv6.size(), 1u);
    EXPECT_EQ(a.ipv6[0].address, "fd00::5");
    // The later link entry without bytes does not erase the first one's.
    ASSERT_TRUE(a.linkAddress);
    EXPECT_EQ(a.linkAddress->description(), "00:1a:ff:01:02:03");
    EXPECT_EQ(a.linkAddress->type, 6);
    // No such interface: the kernel requests all failed.
    EXPECT_EQ(a.counters, InterfaceCounters{});
    EXPECT_EQ(a.mtu, 0u);
    EXPECT_FALSE(a.media);
    EXPECT_FALSE(a.capabilities);
    EXPECT_FALSE(a.nd6Flags);
    EXPECT_EQ(a.functionalType, FunctionalType::unknown);

    EXPECT_TRUE(InterfaceReader().snapshot(nullptr).empty());
}

TEST(InterfaceReader, LinuxFlagsAreShownInTheSharedLayout) {
    AddressList list;
    list.add("nvm0", IFF_UP | IFF_BROADCAST | IFF_RUNNING | IFF_MULTICAST | IFF_DYNAMIC);
    std::vector<InterfaceSnapshot> snapshots = InterfaceReader().snapshot(list.head());
    ASSERT_EQ(snapshots.size(), 1u);
    EXPECT_EQ(snapshots[0].flags, 0x8043u);
}

TEST(InterfaceReader, TwoReadingsOfThisMachineListTheSameNamesInOrder) {
    InterfaceReader reader;
    auto names = [&] {
        std::vector<std::string> list;
        for (const InterfaceSnapshot& s : reader.snapshot()) list.push_back(s.name);
        return list;
    };
    std::vector<std::string> first = names();
    EXPECT_FALSE(first.empty());
    EXPECT_EQ(first, names());
}

TEST(DecodeCString, StopsAtZeroAndRepairsInvalidUtf8) {
    const char withZero[] = {'a', 'b', '\0', 'c'};
    EXPECT_EQ(decodeCString(withZero), "ab");
    const char noZero[] = {'x', 'y'};
    EXPECT_EQ(decodeCString(noZero), "xy");
    const char invalid[] = {'a', '\xC3', '(', '\xED', '\xA0', '\x80', '\xC3', '\xA9', '\0'};
    EXPECT_EQ(decodeCString(invalid), "a\xEF\xBF\xBD(\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xC3\xA9");
    const char overlong[] = {'\xC0', '\xAF'};
    EXPECT_EQ(decodeCString(overlong), "\xEF\xBF\xBD\xEF\xBF\xBD");
    const char truncated[] = {'\xF0', '\x9F', '\x98'};
    EXPECT_EQ(decodeCString(truncated), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(MediaWord, TextOfOneWord) {
    EXPECT_EQ(mediaWord(0x20 | 0x10 | 0x00100000), "1000baseT <full-duplex>");
    EXPECT_EQ(mediaWord(0), "<unknown type>");
}

}  // namespace
}  // namespace netvane
