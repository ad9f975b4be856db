// The interface reader, the shim and the tunnel-owner scan against the real
// kernel, inside a network namespace each test makes for itself (it goes away
// with the test process). Traffic only ever leaves for addresses of that
// namespace.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>

#include "network_namespace.h"
#include "netcore/interfaces/interface_reader.h"
#include "netcore/shim/nv_shim.h"
#include "netcore/sysconfig/tunnel_owners.h"

namespace netvane {
namespace {

using testing::sh;
using testing::TunHolder;

class KernelTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (auto reason = testing::enterPrivateNetworkNamespace()) GTEST_SKIP() << *reason;
        // Only now: a reader's sockets answer for the namespace they were made in.
        reader.emplace();
    }

    static std::optional<InterfaceSnapshot> find(const std::vector<InterfaceSnapshot>& all, const std::string& name) {
        auto it = std::find_if(all.begin(), all.end(), [&](const InterfaceSnapshot& s) { return s.name == name; });
        if (it == all.end()) return std::nullopt;
        return *it;
    }

    std::optional<InterfaceSnapshot> read(const std::string& name) { return find(reader->snapshot(), name); }

    // A veth pair a/b, both up, a with 10.9.0.1/24.
    void makeVethPair(const std::string& a = "nva", const std::string& b = "nvb") {
        ASSERT_TRUE(sh("ip link add " + a + " type veth peer name " + b));
        ASSERT_TRUE(sh("ip addr add 10.9.0.1/24 brd + dev " + a));
        ASSERT_TRUE(sh("ip link set " + a + " up && ip link set " + b + " up"));
    }

    // Sends `count` UDP datagrams of `size` bytes out of 10.9.0.1 to a
    // neighbour that exists only as a static entry, so each leaves through a.
    static void sendDatagrams(const std::string& a, int count, std::size_t size) {
        ASSERT_TRUE(sh("ip neigh replace 10.9.0.77 lladdr 02:00:00:00:00:77 dev " + a));
        UniqueFd sock(::socket(AF_INET, SOCK_DGRAM, 0));
        ASSERT_TRUE(sock);
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(9);
        ::inet_pton(AF_INET, "10.9.0.77", &to.sin_addr);
        std::string payload(size, 'n');
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(::sendto(sock.get(), payload.data(), payload.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to),
                      static_cast<ssize_t>(size));
        }
    }

    static std::string ownExecutable() {
        char path[PATH_MAX] = {};
        EXPECT_GT(::readlink("/proc/self/exe", path, sizeof path - 1), 0);
        return path;
    }

    std::optional<InterfaceReader> reader;
};

TEST_F(KernelTest, VethPairWithIPv4AndIPv6Addresses) {
    makeVethPair();
    ASSERT_TRUE(sh("ip -6 addr add fd00:9::1/64 dev nva nodad"));
    ASSERT_TRUE(sh("ip -6 addr add fd00:9::2/64 dev nva"));  // duplicate detection still running
    auto a = read("nva");
    ASSERT_TRUE(a);
    EXPECT_EQ(a->index, ::if_nametoindex("nva"));
    EXPECT_TRUE(a->isUp());
    EXPECT_EQ(a->mtu, 1500u);
    EXPECT_EQ(a->ifType, 6);
    ASSERT_TRUE(a->linkAddress);
    EXPECT_EQ(a->linkAddress->bytes.size(), 6u);

    ASSERT_EQ(a->ipv4.size(), 1u);
    EXPECT_EQ(a->ipv4[0], (IPv4Address{"10.9.0.1", "255.255.255.0", 24, "10.9.0.255", std::nullopt}));

    auto v6 = [&](const std::string& prefix) -> std::optional<IPv6Address> {
        for (const IPv6Address& address : a->ipv6) {
            if (address.address.starts_with(prefix)) return address;
        }
        return std::nullopt;
    };
    ASSERT_TRUE(v6("fd00:9::1"));
    EXPECT_EQ(v6("fd00:9::1")->prefixLength, 64);
    EXPECT_EQ(v6("fd00:9::1")->scopeID, 0u);
    EXPECT_TRUE(v6("fd00:9::1")->flagNames().empty());
    ASSERT_TRUE(v6("fd00:9::2"));
    EXPECT_EQ(v6("fd00:9::2")->flagNames(), std::vector<std::string>{"tentative"});
    auto linkLocal = v6("fe80::");
    ASSERT_TRUE(linkLocal);
    EXPECT_EQ(linkLocal->scopeID, a->index);
    EXPECT_EQ(linkLocal->prefixLength, 64);

    // A veth reports a fixed 10 Gb/s full-duplex link without negotiation.
    ASSERT_TRUE(a->media);
    EXPECT_EQ(a->media->current, "10Gbase-T <full-duplex>");
    EXPECT_FALSE(a->media->active);
    EXPECT_EQ(a->media->status, MediaStatus::active);
    EXPECT_TRUE(a->capabilities);
    ASSERT_TRUE(a->nd6Flags);
    EXPECT_TRUE(*a->nd6Flags & (1u << 9));  // DAD
    EXPECT_EQ(a->functionalType, FunctionalType::unknown);

    auto lo = read("lo");
    ASSERT_TRUE(lo);
    EXPECT_EQ(lo->functionalType, FunctionalType::loopback);
    EXPECT_TRUE(lo->isLoopback());
}

TEST_F(KernelTest, PointToPointTunHasADestinationAndItsHolderAsOwner) {
    auto holder = TunHolder::start({"nvtun0"});
    ASSERT_TRUE(holder);
    ASSERT_TRUE(sh("ip addr add 10.8.0.1 peer 10.8.0.2 dev nvtun0 && ip link set nvtun0 up"));
    auto tun = read("nvtun0");
    ASSERT_TRUE(tun);
    EXPECT_TRUE(tun->isPointToPoint());
    EXPECT_FALSE(tun->linkAddress);
    ASSERT_EQ(tun->ipv4.size(), 1u);
    EXPECT_EQ(tun->ipv4[0].address, "10.8.0.1");
    EXPECT_EQ(tun->ipv4[0].destination, "10.8.0.2");
    EXPECT_FALSE(tun->ipv4[0].broadcast);

    const std::string path = ownExecutable();
    TunnelOwnerMap owners = TunnelOwners::scan();
    ASSERT_TRUE(owners.contains("nvtun0"));
    EXPECT_EQ(owners["nvtun0"], (TunnelOwner{holder->pid(), path.substr(path.rfind('/') + 1), path}));
}

TEST_F(KernelTest, OneProcessOwnsBothOfItsTunsAndPersistentTunsHaveNoOwner) {
    ASSERT_TRUE(sh("ip tuntap add dev nvpersist mode tun"));
    auto holder = TunHolder::start({"nvtun1", "nvtun2"});
    ASSERT_TRUE(holder);
    TunnelOwnerMap owners = TunnelOwners::scan();
    ASSERT_TRUE(owners.contains("nvtun1"));
    ASSERT_TRUE(owners.contains("nvtun2"));
    EXPECT_EQ(owners["nvtun1"].pid, holder->pid());
    EXPECT_EQ(owners["nvtun2"].pid, holder->pid());
    EXPECT_FALSE(owners.contains("nvpersist"));
    EXPECT_TRUE(read("nvpersist"));
}

TEST_F(KernelTest, TunOfAnotherNamespaceDoesNotOwnOursOfTheSameName) {
    auto elsewhere = TunHolder::start({"nvshadow"}, /*ownNamespace=*/true);
    ASSERT_TRUE(elsewhere);
    ASSERT_TRUE(sh("ip tuntap add dev nvshadow mode tun"));
    EXPECT_FALSE(TunnelOwners::scan().contains("nvshadow"));
}

TEST_F(KernelTest, TrafficRaisesTheSixtyFourBitCounters) {
    makeVethPair();
    auto before = read("nva");
    auto peerBefore = read("nvb");
    ASSERT_TRUE(before && peerBefore);
    constexpr int kCount = 300;
    constexpr std::size_t kPayload = 1200;
    sendDatagrams("nva", kCount, kPayload);
    auto after = read("nva");
    auto peerAfter = read("nvb");
    ASSERT_TRUE(after && peerAfter);
    // Each datagram carries at least its payload plus UDP, IPv4 and Ethernet headers.
    const std::uint64_t atLeast = kCount * (kPayload + 8 + 20 + 14);
    EXPECT_GE(after->counters.bytesOut - before->counters.bytesOut, atLeast);
    EXPECT_GE(after->counters.packetsOut - before->counters.packetsOut, static_cast<std::uint64_t>(kCount));
    EXPECT_GE(peerAfter->counters.bytesIn - peerBefore->counters.bytesIn, atLeast);
}

TEST_F(KernelTest, MtuChangeIsSeen) {
    makeVethPair();
    ASSERT_TRUE(sh("ip link set nva mtu 1400"));
    auto a = read("nva");
    ASSERT_TRUE(a);
    EXPECT_EQ(a->mtu, 1400u);
    std::uint32_t mtu = 0;
    UniqueFd sock(::socket(AF_INET, SOCK_DGRAM, 0));
    ASSERT_EQ(nv_get_mtu(sock.get(), "nva", &mtu), 1);
    EXPECT_EQ(mtu, 1400u);
}

TEST_F(KernelTest, RenamedInterfaceDoesNotLeakTheOthersCounters) {
    makeVethPair();
    sendDatagrams("nva", 200, 1000);
    auto a = read("nva");
    ASSERT_TRUE(a);
    const unsigned oldIndex = a->index;
    // The names swap places: the busy sender's index now answers to "nvc",
    // and "nva" is the quiet peer.
    ASSERT_TRUE(sh("ip link set nva down && ip link set nvb down"));
    ASSERT_TRUE(sh("ip link set nva name nvc && ip link set nvb name nva"));

    nv_ifdata_t data{};
    data.mtu = 1234;
    EXPECT_EQ(nv_get_ifdata(oldIndex, "nva", &data), 0);
    EXPECT_EQ(data.mtu, 1234u);
    ASSERT_EQ(nv_get_ifdata(oldIndex, "nvc", &data), 1);
    EXPECT_GE(data.obytes, 200u * 1000u);

    auto renamed = read("nva");
    ASSERT_TRUE(renamed);
    EXPECT_NE(renamed->index, oldIndex);
    EXPECT_LT(renamed->counters.bytesOut, 200u * 1000u);
}

}  // namespace
}  // namespace netvane
