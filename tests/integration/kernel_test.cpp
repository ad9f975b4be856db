// The interface reader, the shim and the tunnel-owner scan against the real
// kernel, inside a network namespace each test makes for itself (it goes away
// with the test process). Traffic only ever leaves for addresses of that
// namespace.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/ethtool.h>
#include <net/if.h>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <map>
#include <set>

#include "network_namespace.h"
#include "netcore/interfaces/interface_reader.h"
#include "netcore/interfaces/platform_address_list.h"
#include "netcore/shim/linux/nv_linux.h"
#include "netcore/shim/nv_shim.h"
#include "netcore/sysconfig/tunnel_owners.h"

namespace netvane {

// What a failed comparison shows of a snapshot.
void PrintTo(const InterfaceSnapshot& s, std::ostream* out) {
    *out << s.name << " index " << s.index << " flags " << s.flags << " mtu " << s.mtu << " type " << int{s.ifType}
         << " rate " << s.baudrate << " link " << (s.linkAddress ? s.linkAddress->description() : "-");
    for (const IPv4Address& a : s.ipv4) *out << " " << a.address << "/" << a.prefixLength.value_or(-1);
    for (const IPv6Address& a : s.ipv6) *out << " " << a.address << "%" << a.scopeID << " f" << a.flags;
    *out << " media " << (s.media ? s.media->description() : "-") << " caps " << s.capabilities.value_or(0) << " nd6 "
         << (s.nd6Flags ? std::to_string(*s.nd6Flags) : "-") << " functional "
         << static_cast<unsigned>(s.functionalType);
}

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

    EXPECT_TRUE(a->capabilities);
    ASSERT_TRUE(a->nd6Flags);
    EXPECT_TRUE(*a->nd6Flags & (1u << 9));  // DAD
    EXPECT_EQ(a->functionalType, FunctionalType::unknown);

    auto lo = read("lo");
    ASSERT_TRUE(lo);
    EXPECT_EQ(lo->functionalType, FunctionalType::loopback);
    EXPECT_TRUE(lo->isLoopback());
}

// The reading through the C library's list, the path taken where netlink
// will not answer, beside the one-pass reading.
std::vector<InterfaceSnapshot> readThroughTheSystemList(const InterfaceReader& reader) {
    ifaddrs* system = nullptr;
    EXPECT_EQ(::getifaddrs(&system), 0);
    std::vector<InterfaceSnapshot> snapshots = reader.snapshot(system);
    ::freeifaddrs(system);
    return snapshots;
}

// Both readings give the same snapshots; counters are left out, since the
// second reading comes later.
void expectBothPathsAgree(const std::vector<InterfaceSnapshot>& onePass,
                          const std::vector<InterfaceSnapshot>& fallback) {
    ASSERT_EQ(onePass.size(), fallback.size());
    for (std::size_t i = 0; i < onePass.size(); ++i) {
        InterfaceSnapshot a = onePass[i], b = fallback[i];
        a.counters = b.counters = {};
        EXPECT_EQ(a, b) << a.name << " read two ways";
    }
}

TEST_F(KernelTest, AliasAddressesBelongToTheirInterfaceOnBothPaths) {
    makeVethPair();
    ASSERT_TRUE(sh("ip addr add 10.9.1.1/16 brd + dev nva label nva:1"));
    const auto onePass = reader->snapshot();
    const auto fallback = readThroughTheSystemList(*reader);
    for (const auto* reading : {&onePass, &fallback}) {
        EXPECT_FALSE(find(*reading, "nva:1")) << "a label is not an interface";
        auto a = find(*reading, "nva");
        ASSERT_TRUE(a);
        ASSERT_EQ(a->ipv4.size(), 2u);
        EXPECT_EQ(a->ipv4[0].address, "10.9.0.1");
        EXPECT_EQ(a->ipv4[1], (IPv4Address{"10.9.1.1", "255.255.0.0", 16, "10.9.255.255", std::nullopt}));
        EXPECT_TRUE(a->nd6Flags);
        EXPECT_EQ(a->ifType, 6);
    }
    expectBothPathsAgree(onePass, fallback);
}

TEST_F(KernelTest, IndexesBeyondSixteenBitsKeepTheirLinkAddressOnBothPaths) {
    ASSERT_TRUE(sh("ip link add nvbig index 70000 type veth peer name nvbig2 && ip link set nvbig up"));
    const auto onePass = reader->snapshot();
    const auto fallback = readThroughTheSystemList(*reader);
    for (const auto* reading : {&onePass, &fallback}) {
        auto big = find(*reading, "nvbig");
        ASSERT_TRUE(big);
        EXPECT_EQ(big->index, 70000u);
        ASSERT_TRUE(big->linkAddress);
        EXPECT_EQ(big->linkAddress->bytes.size(), 6u);
        EXPECT_EQ(big->ifType, 6);
    }
    expectBothPathsAgree(onePass, fallback);
}

// Virtual drivers make up a speed (a veth or tun claims 10 Gb/s); only a
// device behind the interface has a real medium and line rate.
TEST_F(KernelTest, VirtualInterfacesHaveNoMediumAndNoLineRate) {
    makeVethPair();
    auto holder = TunHolder::start({"nvtun0"});
    ASSERT_TRUE(holder);
    ASSERT_TRUE(sh("ip link set nvtun0 up"));
    // A bridge without ports: its carrier stays off, so both readings agree.
    ASSERT_TRUE(sh("ip link add nvbr type bridge && ip link set nvbr up"));
    UniqueFd sock(::socket(AF_INET, SOCK_DGRAM, 0));
    const auto onePass = reader->snapshot();
    const auto fallback = readThroughTheSystemList(*reader);
    for (const std::string name : {"nva", "nvtun0", "nvbr"}) {
        SCOPED_TRACE(name);
        for (const auto* reading : {&onePass, &fallback}) {
            auto snapshot = find(*reading, name);
            ASSERT_TRUE(snapshot);
            EXPECT_FALSE(snapshot->media);
            EXPECT_EQ(snapshot->baudrate, 0u);
        }
        nv_media_t media{};
        EXPECT_EQ(nv_get_media(sock.get(), name.c_str(), &media), 0);
        nv_ifdata_t data{};
        ASSERT_EQ(nv_get_ifdata(::if_nametoindex(name.c_str()), name.c_str(), &data), 1);
        EXPECT_EQ(data.baudrate, 0u);
    }
    expectBothPathsAgree(onePass, fallback);
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

// A process in our namespace holding a tun that lives in another namespace
// under the name of a tun of ours. With `churn` it duplicates and closes that
// descriptor as fast as it can; with `user` it runs as that user.
class ForeignTunHolder {
public:
    ForeignTunHolder(const char* name, bool churn, uid_t user = 0) {
        int ready[2];
        if (::pipe2(ready, O_CLOEXEC) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            const int home = ::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
            ifreq ifr{};
            ifr.ifr_flags = IFF_TUN | IFF_NO_PI;
            std::strncpy(ifr.ifr_name, name, IFNAMSIZ - 1);
            int tun = -1;
            if (home < 0 || ::unshare(CLONE_NEWNET) != 0 || (tun = ::open("/dev/net/tun", O_RDWR)) < 0 ||
                ::ioctl(tun, TUNSETIFF, &ifr) != 0 || ::setns(home, CLONE_NEWNET) != 0) {
                ::_exit(1);
            }
            // Still traceable by its own user after the change of identity.
            if (user != 0 && (::setresgid(user, user, user) != 0 || ::setresuid(user, user, user) != 0 ||
                              ::prctl(PR_SET_DUMPABLE, 1) != 0)) {
                ::_exit(1);
            }
            if (::write(ready[1], "R", 1) != 1) ::_exit(1);
            for (;;) {
                if (churn) {
                    ::close(::dup(tun));
                } else {
                    ::pause();
                }
            }
        }
        ::close(ready[1]);
        char answer = 0;
        started_ = pid_ > 0 && ::read(ready[0], &answer, 1) == 1;
        ::close(ready[0]);
    }
    ~ForeignTunHolder() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    bool started() const { return started_; }

private:
    pid_t pid_ = -1;
    bool started_ = false;
};

// The holder's copy is made (same user) but the namespace question needs a
// privilege the scanning user lacks: the scan must not guess the holder's
// own namespace and report our tun of that name as the holder's.
TEST_F(KernelTest, TunWhoseNamespaceCannotBeAskedIsSkipped) {
    constexpr uid_t kUser = 64000;
    ForeignTunHolder holder("nvforeign", /*churn=*/false, kUser);
    ASSERT_TRUE(holder.started());
    ASSERT_TRUE(sh("ip tuntap add dev nvforeign mode tun"));
    int result[2];
    ASSERT_EQ(::pipe(result), 0);
    const pid_t scanner = ::fork();
    ASSERT_GE(scanner, 0);
    if (scanner == 0) {
        if (::setresgid(kUser, kUser, kUser) != 0 || ::setresuid(kUser, kUser, kUser) != 0) ::_exit(1);
        const char answer = TunnelOwners::scan().contains("nvforeign") ? 'Y' : 'N';
        ::_exit(::write(result[1], &answer, 1) == 1 ? 0 : 1);
    }
    ::close(result[1]);
    char answer = 0;
    ASSERT_EQ(::read(result[0], &answer, 1), 1);
    ::close(result[0]);
    ::waitpid(scanner, nullptr, 0);
    EXPECT_EQ(answer, 'N') << "a tun of another namespace was reported as ours";
}

// The same holder as root, duplicating and closing its descriptor all the
// while: whenever a copy fails because the descriptor went away, the scan
// must skip it rather than guess.
TEST_F(KernelTest, RacingHolderOfAForeignTunIsNeverTakenForOurs) {
    ForeignTunHolder racer("nvrace", /*churn=*/true);
    ASSERT_TRUE(racer.started());
    ASSERT_TRUE(sh("ip tuntap add dev nvrace mode tun"));
    int attributed = 0;
    for (int i = 0; i < 100; ++i) {
        if (TunnelOwners::scan().contains("nvrace")) ++attributed;
    }
    EXPECT_EQ(attributed, 0) << "of 100 scans";
}

TEST_F(KernelTest, TrafficRaisesTheSixtyFourBitCounters) {
    makeVethPair();
    auto before = read("nva");
    auto peerBefore = read("nvb");
    ASSERT_TRUE(before && peerBefore);
    constexpr int kCount = 300;
    constexpr std::size_t kPayload = 1200;
    sendDatagrams("nva", kCount, kPayload);
    // Each datagram carries at least its payload plus UDP, IPv4 and Ethernet headers.
    const std::uint64_t atLeast = kCount * (kPayload + 8 + 20 + 14);
    // A sent datagram may still wait in the receiving side's backlog on a
    // busy machine; the counters are read again until the peer has counted
    // them all, or for at most two seconds.
    std::optional<InterfaceSnapshot> after, peerAfter;
    for (int attempt = 0; attempt < 200; ++attempt) {
        after = read("nva");
        peerAfter = read("nvb");
        ASSERT_TRUE(after && peerAfter);
        if (peerAfter->counters.bytesIn - peerBefore->counters.bytesIn >= atLeast) break;
        ::usleep(10'000);
    }
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

// One entry of an address list, as text that both lists must agree on. They
// differ on purpose in two ways, evened out here: the C library gives a link
// without a hardware address no address at all (ours carries the index), and
// takes an IPv4 address without broadcast or peer for its own broadcast.
std::string describe(const ifaddrs& entry) {
    const auto address = [](const sockaddr* a) -> std::string {
        if (a == nullptr) return "-";
        if (a->sa_family == AF_INET) return ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(a)->sin_addr);
        if (a->sa_family == AF_INET6) {
            const auto* v6 = reinterpret_cast<const sockaddr_in6*>(a);
            return ntop(AF_INET6, &v6->sin6_addr) + "%" + std::to_string(v6->sin6_scope_id);
        }
        std::uint8_t bytes[32] = {};
        const auto* link = reinterpret_cast<const sockaddr_dl*>(a);
        const int length = nv_sockaddr_dl_lladdr(link, bytes, sizeof bytes);
        if (length == 0) return "-";
        return "link " + std::to_string(nv_sockaddr_dl_index(link)) + " type " +
               std::to_string(nv_sockaddr_dl_type(link)) + " ends " + std::to_string(bytes[length - 1]);
    };
    std::string text = std::string(entry.ifa_name) + " flags " + std::to_string(entry.ifa_flags) + " " +
                       address(entry.ifa_addr) + " mask " + address(entry.ifa_netmask);
    if (entry.ifa_addr == nullptr || entry.ifa_addr->sa_family == AF_PACKET) return text;
    const std::string other = address(entry.ifa_dstaddr);
    return text + " other " + (other == address(entry.ifa_addr) ? "-" : other);
}

std::vector<std::string> describeAll(const ifaddrs* list) {
    std::vector<std::string> lines;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) lines.push_back(describe(*entry));
    return lines;
}

// A namespace with some of everything a reading meets.
void makeVariedInterfaces() {
    ASSERT_TRUE(sh("ip link add nva type veth peer name nvb && ip link set nva up && ip link set nvb up"));
    ASSERT_TRUE(sh("ip addr add 10.9.0.1/24 brd + dev nva && ip addr add 10.9.1.1/16 brd + dev nva label nva:1"));
    ASSERT_TRUE(sh("ip -6 addr add fd00:9::1/64 dev nva nodad && ip -6 addr add fd00:9::2/64 dev nvb"));
    ASSERT_TRUE(sh("ip link set nvb mtu 1400 && ip link set nvb arp off"));
    ASSERT_TRUE(sh("ip tuntap add dev nvtun mode tun && ip addr add 10.8.0.1 peer 10.8.0.2 dev nvtun"));
    ASSERT_TRUE(sh("sysctl -qw net.ipv6.conf.nva.accept_ra=2 net.ipv6.conf.nvb.disable_ipv6=1"));
}

// The list against the C library's own: the same entries in the same order.
void expectTheSystemListsEntries() {
    ifaddrs* system = nullptr;
    ASSERT_EQ(::getifaddrs(&system), 0);
    const std::vector<std::string> expected = describeAll(system);
    ::freeifaddrs(system);
    const AddressList list = AddressList::read(UniqueFd(::socket(AF_INET, SOCK_DGRAM, 0)).get());
    EXPECT_EQ(describeAll(list.entries()), expected);
}

// The list's facts against the shim's per-interface requests; returns how
// many interfaces it checked.
std::size_t expectWhatThePerInterfaceRequestsAnswer() {
    const AddressList list = AddressList::read(UniqueFd(::socket(AF_INET, SOCK_DGRAM, 0)).get());
    UniqueFd sock4(::socket(AF_INET, SOCK_DGRAM, 0)), sock6(::socket(AF_INET6, SOCK_DGRAM, 0));
    std::size_t interfaces = 0;
    for (const ifaddrs* entry = list.entries(); entry != nullptr; entry = entry->ifa_next) {
        const char* name = entry->ifa_name;
        SCOPED_TRACE(name);
        if (entry->ifa_addr->sa_family == AF_INET6) {
            std::uint32_t flags = 0;
            EXPECT_EQ(nv_get_in6_addr_flags(sock6.get(), name, reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr),
                                            &flags), 1);
            EXPECT_EQ(list.in6Flags(*entry), flags);
        }
        if (entry->ifa_addr->sa_family != AF_PACKET) continue;
        ++interfaces;
        const KernelFacts* facts = list.facts(name);
        if (facts == nullptr) {
            ADD_FAILURE() << "no facts";
            continue;
        }
        nv_ifdata_t data{};
        EXPECT_EQ(nv_get_ifdata(if_nametoindex(name), name, &data), 1);
        EXPECT_TRUE(facts->data);
        if (facts->data) {
            EXPECT_EQ(facts->data->mtu, data.mtu);
            EXPECT_EQ(facts->data->type, data.type);
            EXPECT_EQ(facts->data->baudrate, data.baudrate);
            // Counters only grow, and the requests came later.
            EXPECT_LE(facts->data->opackets, data.opackets);
            EXPECT_LE(facts->data->obytes, data.obytes);
        }
        nv_media_t media{};
        const bool hasMedia = nv_get_media(sock4.get(), name, &media) == 1;
        EXPECT_EQ(facts->media.has_value(), hasMedia);
        if (hasMedia && facts->media) {
            EXPECT_EQ(std::tie(facts->media->current, facts->media->active, facts->media->status),
                      std::tie(media.current, media.active, media.status));
        }
        std::uint32_t value = 0;
        EXPECT_EQ(facts->capabilities, nv_get_curcap(sock4.get(), name, &value) ? std::optional(value) : std::nullopt);
        value = 0;
        EXPECT_EQ(facts->nd6Flags, nv_get_nd6_flags(sock6.get(), name, &value) ? std::optional(value) : std::nullopt);
        value = 0;
        EXPECT_EQ(facts->functionalType,
                  nv_get_functional_type(sock4.get(), name, &value) ? std::optional(value) : std::nullopt);
    }
    EXPECT_EQ(list.facts("nva:1"), nullptr);  // a label, not an interface
    return interfaces;
}

// Every interface has IPv6 settings here, so the compact dumps serve.
TEST_F(KernelTest, OnePassListMatchesTheSystemListAndTheShim) {
    makeVariedInterfaces();
    expectTheSystemListsEntries();
    EXPECT_EQ(expectWhatThePerInterfaceRequestsAnswer(), 4u);  // lo, nva, nvb, nvtun
}

// An interface too small for IPv6 has no IPv6 settings, so the full link
// dump serves.
TEST_F(KernelTest, OnePassListMatchesTheSystemListAndTheShimWithAnInterfaceWithoutIPv6) {
    makeVariedInterfaces();
    ASSERT_TRUE(sh("ip link add nvsmall mtu 1200 type veth peer name nvsmall2 mtu 1200"));
    ASSERT_TRUE(sh("ip addr add 10.7.0.1/24 dev nvsmall && ip link set nvsmall up"));
    expectTheSystemListsEntries();
    EXPECT_EQ(expectWhatThePerInterfaceRequestsAnswer(), 6u);
    auto small = read("nvsmall");
    ASSERT_TRUE(small);
    EXPECT_FALSE(small->nd6Flags);
    EXPECT_EQ(small->ifType, 6u);  // from the dump's link data, like the counters
}

TEST_F(KernelTest, BroadcastOnlyWhereTheAddressHasOneAndDestinationOnlyForAPeer) {
    ASSERT_TRUE(sh("ip link add nva type veth peer name nvb && ip addr add 10.9.0.1/24 dev nva"));
    ASSERT_TRUE(sh("ip tuntap add dev nvtun mode tun && ip addr add 10.8.0.1/32 dev nvtun"));
    auto veth = read("nva");
    auto tun = read("nvtun");
    ASSERT_TRUE(veth && tun);
    ASSERT_EQ(veth->ipv4.size(), 1u);
    EXPECT_FALSE(veth->ipv4[0].broadcast);
    ASSERT_EQ(tun->ipv4.size(), 1u);
    EXPECT_FALSE(tun->ipv4[0].destination);
}

TEST_F(KernelTest, LinkSettingsRecoverFromAWrongMaskSizeAndFeatureTablesMustMatch) {
    makeVethPair();
    UniqueFd sock(::socket(AF_INET, SOCK_DGRAM, 0));
    ethtool_link_settings settings{};
    int words = 1;  // the kernel's is larger
    ASSERT_EQ(nv_linux_link_settings(sock.get(), "nva", &words, &settings), 1);
    EXPECT_GT(words, 1);
    const int kernels = words;
    ASSERT_EQ(nv_linux_link_settings(sock.get(), "nvb", &words, &settings), 1);
    EXPECT_EQ(words, kernels);
    EXPECT_EQ(nv_linux_baudrate(&settings), 10'000'000'000u);  // veth reports 10 Gb/s

    auto table = std::make_unique<nv_linux_features_t>();
    ASSERT_EQ(nv_linux_feature_table(sock.get(), "nva", table.get()), 1);
    std::uint32_t caps = 0, expected = 0;
    ASSERT_EQ(nv_linux_curcap(sock.get(), "nvb", table.get(), &caps), 1);
    ASSERT_EQ(nv_get_curcap(sock.get(), "nvb", &expected), 1);
    EXPECT_EQ(caps, expected);
    table->count += 32;  // a table of another kernel
    caps = 7;
    EXPECT_EQ(nv_linux_curcap(sock.get(), "nvb", table.get(), &caps), 0);
    EXPECT_EQ(caps, 7u);
}

// The one dump of every interface's features and of their timestamping
// against each interface's own requests: lo, a veth pair and a tun each
// enable other features.
TEST_F(KernelTest, CapabilityDumpsAnswerAsEachInterfacesOwnRequests) {
    makeVariedInterfaces();
    UniqueFd sock(::socket(AF_INET, SOCK_DGRAM, 0));
    auto table = std::make_unique<nv_linux_features_t>();
    ASSERT_EQ(nv_linux_feature_table(sock.get(), "lo", table.get()), 1);
    struct Dumped {
        std::map<std::int32_t, std::uint32_t> features, timestamps;
    };
    const auto features = [](std::int32_t index, std::uint32_t capabilities, void* context) {
        EXPECT_TRUE(static_cast<Dumped*>(context)->features.emplace(index, capabilities).second);
    };
    const auto timestamps = [](std::int32_t index, std::uint32_t capabilities, void* context) {
        EXPECT_TRUE(static_cast<Dumped*>(context)->timestamps.emplace(index, capabilities).second);
    };
    Dumped dumped;
    ASSERT_EQ(nv_linux_dump_capabilities(table.get(), features, timestamps, &dumped), 1);
    EXPECT_EQ(dumped.features.size(), 4u);
    EXPECT_EQ(dumped.timestamps.size(), 4u);  // none has a clock of its own
    std::set<std::uint32_t> distinct;
    for (const char* name : {"lo", "nva", "nvb", "nvtun"}) {
        SCOPED_TRACE(name);
        const auto index = static_cast<std::int32_t>(::if_nametoindex(name));
        ASSERT_TRUE(dumped.features.contains(index) && dumped.timestamps.contains(index));
        EXPECT_EQ(dumped.timestamps[index], nv_linux_timestamp_request(sock.get(), name));
        std::uint32_t requested = 0;
        ASSERT_EQ(nv_linux_curcap(sock.get(), name, table.get(), &requested), 1);
        EXPECT_EQ(dumped.features[index] | dumped.timestamps[index], requested);
        distinct.insert(dumped.features[index]);
    }
    EXPECT_GE(distinct.size(), 2u);  // not one answer for all

    // The table of another kernel fits no interface: no features are
    // answered, and each interface is left to its own request.
    table->count += 32;
    dumped = {};
    EXPECT_EQ(nv_linux_dump_capabilities(table.get(), features, timestamps, &dumped), 1);
    EXPECT_TRUE(dumped.features.empty());
}

// Linux allows nearly any byte in a name, but what we show and keep is UTF-8:
// the reader repairs a name that is not, after asking the kernel under the
// name it has, so every command that shows or records interfaces gets the
// repaired one and keeps working.
TEST_F(KernelTest, ANameThatIsNotUtf8IsRepairedForStatusWatchAndHistory) {
    const std::string raw = "nv\xff" "x";
    const std::string repaired = "nv\xef\xbf\xbd" "x";  // one U+FFFD for the byte
    ASSERT_TRUE(sh("name=$(printf 'nv\\377x') && ip link add \"$name\" type veth peer name nvutf && "
                   "ip addr add 10.9.0.1/24 dev \"$name\" && ip link set \"$name\" up && ip link set nvutf up"));
    ASSERT_NE(::if_nametoindex(raw.c_str()), 0u) << "the kernel keeps the byte as it is";
    const auto snapshot = read(repaired);
    ASSERT_TRUE(snapshot);
    EXPECT_EQ(snapshot->index, ::if_nametoindex(raw.c_str()));
    EXPECT_EQ(snapshot->mtu, 1500u) << "facts asked under the kernel's name";
    ASSERT_EQ(snapshot->ipv4.size(), 1u);
    EXPECT_FALSE(read(raw));

    const std::string cli = NETVANE_CLI;
    const std::string status = testing::capture(cli + " status --json").value_or("");
    EXPECT_NE(status.find("\"name\": \"" + repaired + "\""), std::string::npos) << status;
    EXPECT_EQ(status.find('\xff'), std::string::npos);

    char directory[] = "/tmp/netvane-utf8-XXXXXX";
    ASSERT_NE(::mkdtemp(directory), nullptr);
    const std::string history = std::string(directory) + "/history.plist";
    // A machine too busy to keep the interval records no rate (a stall is no
    // rate): each try adds to the same history until one is there.
    std::string shown;
    for (int attempt = 0; attempt < 3 && shown.find("\"" + repaired + "\"") == std::string::npos; ++attempt) {
        const std::string watched =
            testing::capture(cli + " watch --interval 0.2 --count 3 --history " + history + " --json 2>&1")
                .value_or("");
        EXPECT_NE(watched.find(repaired), std::string::npos) << watched;
        EXPECT_EQ(watched.find("cannot save"), std::string::npos) << watched;
        shown = testing::capture(cli + " history show " + history + " --json").value_or("");
    }
    EXPECT_NE(shown.find("\"" + repaired + "\""), std::string::npos) << shown;
    EXPECT_TRUE(sh("rm -rf " + std::string(directory)));
}

}  // namespace
}  // namespace netvane
