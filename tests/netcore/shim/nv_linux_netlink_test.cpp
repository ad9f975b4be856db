// The netlink layer on crafted messages: the attribute table and its typed
// getters, the bounded writer, and the three loops over a stand-in for the
// kernel that answers each request with datagrams of the test's making.
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "netcore/shim/linux/nv_linux.h"
#include "netcore/shim/linux/nv_linux_netlink.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

// Attributes laid out as the kernel lays them out.
Bytes attribute(std::uint16_t type, const void* data, std::size_t length) {
    Bytes bytes(NLA_ALIGN(NLA_HDRLEN + length));
    const nlattr header{static_cast<std::uint16_t>(NLA_HDRLEN + length), type};
    std::memcpy(bytes.data(), &header, sizeof header);
    if (length) std::memcpy(bytes.data() + NLA_HDRLEN, data, length);
    return bytes;
}
Bytes attribute(std::uint16_t type, const Bytes& data) { return attribute(type, data.data(), data.size()); }
Bytes text(std::uint16_t type, const std::string& value) { return attribute(type, value.c_str(), value.size() + 1); }
template <class T>
Bytes value(std::uint16_t type, T v) {
    return attribute(type, &v, sizeof v);
}
// Out of line: inlined into the builders below, GCC 12 takes the copies of
// empty parts for overruns.
[[gnu::noinline]] void copyInto(Bytes& into, std::size_t at, const Bytes& part) {
    std::copy(part.begin(), part.end(), into.begin() + static_cast<std::ptrdiff_t>(at));
}
Bytes join(std::initializer_list<Bytes> parts) {
    std::size_t size = 0;
    for (const Bytes& part : parts) size += part.size();
    Bytes all(size);
    std::size_t at = 0;
    for (const Bytes& part : parts) {
        copyInto(all, at, part);
        at += part.size();
    }
    return all;
}

// One message: header, family header, attributes.
template <class Header>
Bytes message(std::uint16_t type, const Header& header, const Bytes& attributes, std::uint32_t sequence = 0,
              std::uint32_t port = 0, std::uint16_t flags = 0) {
    Bytes bytes(NLMSG_SPACE(sizeof header) + attributes.size());
    nlmsghdr top{static_cast<std::uint32_t>(bytes.size()), type, flags, sequence, port};
    std::memcpy(bytes.data(), &top, sizeof top);
    std::memcpy(bytes.data() + NLMSG_HDRLEN, &header, sizeof header);
    copyInto(bytes, NLMSG_SPACE(sizeof header), attributes);
    return bytes;
}
const nlmsghdr* asMessage(const Bytes& bytes) { return reinterpret_cast<const nlmsghdr*>(bytes.data()); }

TEST(NetlinkAttributes, OneTableByTypeFirstOfATypeWinsAndAnOverrunStopsIt) {
    const std::uint32_t one = 1, two = 2;
    Bytes area = join({value(IFLA_MTU, one), value(IFLA_MTU, two), value(IFLA_LINK | NLA_F_NESTED, one),
                       value(500, one), text(IFLA_IFNAME, "nv0")});
    const nlattr* table[IFLA_MAX + 1];
    ASSERT_EQ(nv_nl_parse(table, IFLA_MAX, area.data(), area.size()), 1);
    std::uint32_t mtu = 0, lower = 0;
    ASSERT_EQ(nv_nl_u32(table[IFLA_MTU], &mtu), 1);
    EXPECT_EQ(mtu, 1u) << "the first of a type";
    EXPECT_EQ(nv_nl_u32(table[IFLA_LINK], &lower), 1) << "the nested bit is no part of the type";
    char name[16] = {};
    EXPECT_EQ(nv_nl_string(table[IFLA_IFNAME], name, sizeof name), 1);
    EXPECT_STREQ(name, "nv0");

    // An attribute that claims more than the area holds ends the table there.
    Bytes overrun = join({value(IFLA_MTU, one), text(IFLA_IFNAME, "nv1")});
    const std::size_t last = NLA_ALIGN(NLA_HDRLEN + sizeof one);
    reinterpret_cast<nlattr*>(overrun.data() + last)->nla_len = 200;
    EXPECT_EQ(nv_nl_parse(table, IFLA_MAX, overrun.data(), overrun.size()), 0);
    EXPECT_NE(table[IFLA_MTU], nullptr);
    EXPECT_EQ(table[IFLA_IFNAME], nullptr);
    // So does one too short to hold its own header.
    reinterpret_cast<nlattr*>(overrun.data() + last)->nla_len = 2;
    EXPECT_EQ(nv_nl_parse(table, IFLA_MAX, overrun.data(), overrun.size()), 0);
    EXPECT_EQ(table[IFLA_IFNAME], nullptr);

    // A nest is a table of its own, bounded by the nest.
    Bytes inner = attribute(IFLA_INFO_KIND, "tun", 4);
    Bytes nested = attribute(IFLA_LINKINFO | NLA_F_NESTED, inner);
    ASSERT_EQ(nv_nl_parse(table, IFLA_MAX, nested.data(), nested.size()), 1);
    const nlattr* info[IFLA_INFO_MAX + 1];
    ASSERT_EQ(nv_nl_parse_nested(info, IFLA_INFO_MAX, table[IFLA_LINKINFO]), 1);
    std::size_t length = 0;
    ASSERT_NE(nv_nl_text(info[IFLA_INFO_KIND], &length), nullptr);
    EXPECT_EQ(length, 3u);
}

TEST(NetlinkAttributes, GettersReadOnlyAPayloadOfTheirSize) {
    const Bytes shortWord = attribute(1, "abc", 3);
    const Bytes word = value<std::uint32_t>(1, 0x01020304);
    const Bytes wide = value<std::uint64_t>(1, 0x0102030405060708ull);
    const Bytes name = text(1, "sixteencharacter");  // 16 + its terminator
    const Bytes unterminated = attribute(1, "abcd", 4);
    const std::int32_t values[3] = {7, -1, 9};
    const Bytes array = attribute(1, values, sizeof values);
    auto a = [](const Bytes& bytes) { return reinterpret_cast<const nlattr*>(bytes.data()); };

    std::uint32_t u32 = 99;
    EXPECT_EQ(nv_nl_u32(a(shortWord), &u32), 0);
    EXPECT_EQ(nv_nl_u32(a(wide), &u32), 0);
    EXPECT_EQ(nv_nl_u32(nullptr, &u32), 0);
    EXPECT_EQ(u32, 99u) << "nothing read from a failing attribute";
    EXPECT_EQ(nv_nl_u32(a(word), &u32), 1);
    EXPECT_EQ(u32, 0x01020304u);
    std::uint64_t u64 = 0;
    EXPECT_EQ(nv_nl_u64(a(wide), &u64), 1);
    EXPECT_EQ(u64, 0x0102030405060708ull);
    std::uint16_t u16 = 5;
    EXPECT_EQ(nv_nl_u16(a(word), &u16), 0);

    char out[16];
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(nv_nl_string(a(name), out, sizeof out), 0) << "16 characters and a terminator need 17 bytes";
    EXPECT_EQ(out[0], 'x');
    EXPECT_EQ(nv_nl_string(a(unterminated), out, sizeof out), 1) << "the payload's end ends the text";
    EXPECT_STREQ(out, "abcd");

    std::int32_t element = 0;
    EXPECT_EQ(nv_nl_s32_at(a(array), 2, &element), 1);
    EXPECT_EQ(element, 9);
    EXPECT_EQ(nv_nl_s32_at(a(array), 3, &element), 0);
    EXPECT_EQ(nv_nl_s32_at(nullptr, 0, &element), 0);
    EXPECT_EQ(element, 9);
}

TEST(NetlinkRequests, TheWriterRefusesToPassItsBufferAndSaysSo) {
    nv_nl_request_t request;
    auto* info = static_cast<ifinfomsg*>(nv_nl_request(&request, RTM_GETLINK, 0, sizeof(ifinfomsg)));
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(request.message.header.nlmsg_flags, NLM_F_REQUEST);
    const std::size_t nest = nv_nl_nest_start(&request, IFLA_LINKINFO);
    ASSERT_NE(nest, 0u);
    ASSERT_EQ(nv_nl_put_string(&request, IFLA_INFO_KIND, "tun"), 1);
    nv_nl_nest_end(&request, nest);
    const nlattr* table[IFLA_MAX + 1];
    ASSERT_EQ(nv_nl_parse_message(table, IFLA_MAX, &request.message.header, sizeof(ifinfomsg)), 1);
    const nlattr* inner[IFLA_INFO_MAX + 1];
    ASSERT_EQ(nv_nl_parse_nested(inner, IFLA_INFO_MAX, table[IFLA_LINKINFO]), 1);
    char kind[8] = {};
    EXPECT_EQ(nv_nl_string(inner[IFLA_INFO_KIND], kind, sizeof kind), 1);
    EXPECT_STREQ(kind, "tun");

    const std::uint32_t length = request.message.header.nlmsg_len;
    const Bytes big(NV_NL_REQUEST_SIZE, 'a');
    EXPECT_EQ(nv_nl_put(&request, IFLA_IFALIAS, big.data(), big.size()), 0);
    EXPECT_EQ(request.message.header.nlmsg_len, length) << "a refused attribute leaves no trace";
    EXPECT_TRUE(request.overflow);
    EXPECT_EQ(nv_nl_put_u32(&request, IFLA_MTU, 1), 0) << "and the request stays refused";

    nv_nl_request_t huge;
    EXPECT_EQ(nv_nl_request(&huge, RTM_GETLINK, 0, NV_NL_REQUEST_SIZE), nullptr);
}

// A stand-in for the kernel: each request sent is handed to `answer`, which
// queues the datagrams that come back (with their sender).
class FakeKernel {
public:
    static constexpr std::uint32_t kPort = 4242;
    struct Datagram {
        Bytes bytes;
        std::uint32_t sender = 0;
        int error = 0;  // a failed receive instead
        std::size_t claimed = 0;  // a length past the buffer's, when set
    };

    FakeKernel() {
        static const nv_nl_transport_t transport = {&FakeKernel::send, &FakeKernel::receive};
        socket_ = nv_nl_open_transport(&transport, this, kPort);
    }
    ~FakeKernel() { nv_nl_close(socket_); }
    nv_nl_socket_t* socket() { return socket_; }

    std::function<void(const nlmsghdr& request)> answer = [](const nlmsghdr&) {};
    std::deque<Datagram> queue;
    std::vector<Bytes> requests;

    void reply(const Bytes& bytes, std::uint32_t sender = 0) { queue.push_back({bytes, sender}); }

private:
    static ssize_t send(void* context, const void* data, std::size_t length) {
        auto* self = static_cast<FakeKernel*>(context);
        const auto* bytes = static_cast<const std::uint8_t*>(data);
        self->requests.emplace_back(bytes, bytes + length);
        self->answer(*static_cast<const nlmsghdr*>(data));
        return static_cast<ssize_t>(length);
    }
    static ssize_t receive(void* context, void* buffer, std::size_t size, int, std::uint32_t* sender) {
        auto* self = static_cast<FakeKernel*>(context);
        if (self->queue.empty()) {
            errno = EAGAIN;
            return -1;
        }
        Datagram datagram = std::move(self->queue.front());
        self->queue.pop_front();
        if (datagram.error) {
            errno = datagram.error;
            return -1;
        }
        if (!datagram.bytes.empty()) std::memcpy(buffer, datagram.bytes.data(), std::min(size, datagram.bytes.size()));
        *sender = datagram.sender;
        return static_cast<ssize_t>(datagram.claimed ? datagram.claimed : datagram.bytes.size());
    }

    nv_nl_socket_t* socket_ = nullptr;
};

Bytes linkMessage(const std::string& name, std::uint32_t sequence, std::uint16_t flags = 0,
                  std::uint32_t port = FakeKernel::kPort) {
    ifinfomsg info{};
    info.ifi_index = 3;
    return message(RTM_NEWLINK, info, text(IFLA_IFNAME, name), sequence, port, flags);
}
Bytes done(std::uint32_t sequence, int error = 0, std::uint16_t flags = 0) {
    return message(NLMSG_DONE, error, {}, sequence, FakeKernel::kPort, flags);
}
Bytes errorReply(std::uint32_t sequence, int error) {
    nlmsgerr body{};
    body.error = error;
    return message(NLMSG_ERROR, body, {}, sequence, FakeKernel::kPort);
}

struct Names {
    std::vector<std::string> seen;
    int restarts = 0;

    nv_nl_dump_t dump(int attempts = 1) {
        nv_nl_dump_t d{};
        d.type = RTM_NEWLINK;
        d.visit = [](const nlmsghdr* m, void* self) {
            nv_linux_link_t link;
            if (nv_linux_parse_link(m, &link)) static_cast<Names*>(self)->seen.push_back(link.name);
        };
        d.restart = [](void* self) {
            static_cast<Names*>(self)->seen.clear();
            ++static_cast<Names*>(self)->restarts;
        };
        d.context = this;
        d.attempts = attempts;
        return d;
    }
};

nv_nl_request_t linkRequest() {
    nv_nl_request_t request;
    nv_nl_request(&request, RTM_GETLINK, 0, sizeof(ifinfomsg));
    return request;
}

TEST(NetlinkDump, OnlyTheKernelsRepliesToThisRequestCount) {
    FakeKernel kernel;
    kernel.answer = [&](const nlmsghdr& request) {
        const std::uint32_t seq = request.nlmsg_seq;
        EXPECT_EQ(request.nlmsg_flags & (NLM_F_REQUEST | NLM_F_DUMP), NLM_F_REQUEST | NLM_F_DUMP);
        kernel.reply(join({linkMessage("forged", seq), done(seq)}), 77);  // another process
        kernel.reply(join({linkMessage("stale", seq - 1), linkMessage("elsewhere", seq, 0, 99),
                           linkMessage("nv0", seq)}));
        kernel.reply(join({linkMessage("nv1", seq), done(seq)}));
    };
    Names names;
    nv_nl_dump_t dump = names.dump();
    nv_nl_request_t request = linkRequest();
    ASSERT_EQ(nv_nl_dump(kernel.socket(), &request, &dump), 1);
    EXPECT_EQ(names.seen, (std::vector<std::string>{"nv0", "nv1"}));
    EXPECT_FALSE(dump.interrupted);

    // The next request takes the next sequence number.
    kernel.queue.clear();
    ASSERT_EQ(nv_nl_dump(kernel.socket(), &request, &dump), 1);
    ASSERT_EQ(kernel.requests.size(), 2u);
    EXPECT_EQ(asMessage(kernel.requests[1])->nlmsg_seq, asMessage(kernel.requests[0])->nlmsg_seq + 1);
}

TEST(NetlinkDump, AnInterruptedDumpIsReadAgainFromScratch) {
    FakeKernel kernel;
    int attempt = 0;
    kernel.answer = [&](const nlmsghdr& request) {
        const std::uint32_t seq = request.nlmsg_seq;
        if (++attempt == 1) {
            kernel.reply(join({linkMessage("nv0", seq), linkMessage("nv0", seq, NLM_F_DUMP_INTR),
                               done(seq, 0, NLM_F_DUMP_INTR)}));
        } else {
            kernel.reply(join({linkMessage("nv0", seq), linkMessage("nv1", seq), done(seq)}));
        }
    };
    Names names;
    nv_nl_dump_t dump = names.dump(3);
    nv_nl_request_t request = linkRequest();
    ASSERT_EQ(nv_nl_dump(kernel.socket(), &request, &dump), 1);
    EXPECT_FALSE(dump.interrupted);
    EXPECT_EQ(names.restarts, 1);
    EXPECT_EQ(names.seen, (std::vector<std::string>{"nv0", "nv1"})) << "nothing of the interrupted attempt";
    EXPECT_EQ(kernel.requests.size(), 2u);

    // One that never settles ends after its attempts, and says so.
    attempt = 0;
    kernel.requests.clear();
    kernel.answer = [&](const nlmsghdr& request) {
        kernel.reply(join({linkMessage("nv2", request.nlmsg_seq, NLM_F_DUMP_INTR), done(request.nlmsg_seq)}));
    };
    ASSERT_EQ(nv_nl_dump(kernel.socket(), &request, &dump), 1);
    EXPECT_TRUE(dump.interrupted);
    EXPECT_EQ(kernel.requests.size(), 3u);
}

TEST(NetlinkDump, ErrorsEndsThatFailAndDatagramsThatDoNotFitFailTheDump) {
    struct Case {
        const char* what;
        std::function<void(FakeKernel&, std::uint32_t)> answer;
        int error;
    };
    const std::vector<Case> cases = {
        {"an error reply", [](FakeKernel& k, std::uint32_t seq) { k.reply(errorReply(seq, -EPERM)); }, EPERM},
        {"an error no kernel sends",
         [](FakeKernel& k, std::uint32_t seq) { k.reply(errorReply(seq, std::numeric_limits<int>::min())); }, EPROTO},
        {"an end that carries an error",
         [](FakeKernel& k, std::uint32_t seq) { k.reply(join({linkMessage("nv0", seq), done(seq, -EINVAL)})); },
         EINVAL},
        {"a datagram cut short by the buffer",
         [](FakeKernel& k, std::uint32_t seq) { k.queue.push_back({linkMessage("nv0", seq), 0, 0, 1 << 20}); },
         EMSGSIZE},
        {"a message longer than its datagram",
         [](FakeKernel& k, std::uint32_t seq) {
             Bytes bytes = linkMessage("nv0", seq);
             reinterpret_cast<nlmsghdr*>(bytes.data())->nlmsg_len += 64;
             k.reply(bytes);
         },
         EPROTO},
        {"a socket that fails", [](FakeKernel& k, std::uint32_t) { k.queue.push_back({{}, 0, ENOBUFS}); }, ENOBUFS},
    };
    for (const Case& c : cases) {
        FakeKernel kernel;
        kernel.answer = [&](const nlmsghdr& request) { c.answer(kernel, request.nlmsg_seq); };
        Names names;
        nv_nl_dump_t dump = names.dump(3);
        nv_nl_request_t request = linkRequest();
        EXPECT_EQ(nv_nl_dump(kernel.socket(), &request, &dump), 0) << c.what;
        EXPECT_EQ(dump.error, c.error) << c.what;
        EXPECT_EQ(kernel.requests.size(), 1u) << c.what << ": a failure is not retried";
    }

    // An overflowed request never leaves.
    FakeKernel kernel;
    nv_nl_request_t request = linkRequest();
    request.overflow = 1;
    Names names;
    nv_nl_dump_t dump = names.dump();
    EXPECT_EQ(nv_nl_dump(kernel.socket(), &request, &dump), 0);
    EXPECT_EQ(dump.error, EMSGSIZE);
    EXPECT_TRUE(kernel.requests.empty());
}

TEST(NetlinkExchange, TheReplyToThisRequestOrTheKernelsRefusal) {
    FakeKernel kernel;
    kernel.answer = [&](const nlmsghdr& request) {
        kernel.reply(linkMessage("old", request.nlmsg_seq - 1));  // a reply given up on earlier
        kernel.reply(linkMessage("nv0", request.nlmsg_seq));
    };
    nv_nl_request_t request = linkRequest();
    const nlmsghdr* reply = nv_nl_exchange(kernel.socket(), &request, RTM_NEWLINK);
    ASSERT_NE(reply, nullptr);
    nv_linux_link_t link;
    ASSERT_EQ(nv_linux_parse_link(reply, &link), 1);
    EXPECT_STREQ(link.name, "nv0");

    kernel.answer = [&](const nlmsghdr& request) { kernel.reply(errorReply(request.nlmsg_seq, -ENODEV)); };
    errno = 0;
    EXPECT_EQ(nv_nl_exchange(kernel.socket(), &request, RTM_NEWLINK), nullptr);
    EXPECT_EQ(errno, ENODEV);
    kernel.answer = [&](const nlmsghdr& request) { kernel.reply(done(request.nlmsg_seq)); };
    EXPECT_EQ(nv_nl_exchange(kernel.socket(), &request, RTM_NEWLINK), nullptr);
    EXPECT_EQ(errno, EPROTO);
}

TEST(NetlinkEvents, AnOverrunIsReportedAndOnlyTheKernelIsHeard) {
    FakeKernel kernel;
    kernel.reply(linkMessage("nv0", 0, 0, 0));
    kernel.queue.push_back({{}, 0, ENOBUFS});
    kernel.reply(linkMessage("forged", 0, 0, 0), 1234);
    kernel.reply(join({linkMessage("nv1", 0, 0, 0), linkMessage("nv2", 0, 0, 0)}));
    Names names;
    auto visit = [](const nlmsghdr* m, void* self) {
        nv_linux_link_t link;
        if (nv_linux_parse_link(m, &link)) static_cast<Names*>(self)->seen.push_back(link.name);
    };
    EXPECT_EQ(nv_nl_drain(kernel.socket(), visit, &names), 0);
    EXPECT_EQ(names.seen, (std::vector<std::string>{"nv0", "nv1", "nv2"}));
    kernel.reply(linkMessage("nv3", 0, 0, 0));
    EXPECT_EQ(nv_nl_drain(kernel.socket(), visit, &names), 1) << "the overrun was told once";
}

// The routing family's other messages, each read in one place.
TEST(NetlinkMessages, AddressesStatisticsAndRoutes) {
    ifaddrmsg v4{};
    v4.ifa_family = AF_INET;
    v4.ifa_prefixlen = 24;
    v4.ifa_index = 70000;
    v4.ifa_flags = 0x80;  // IFA_F_PERMANENT, which the header's byte still holds
    const std::uint8_t local[4] = {10, 0, 0, 1}, peer[4] = {10, 0, 0, 2}, broadcast[4] = {10, 0, 0, 255};
    nv_linux_address_t address;
    const Bytes pointToPoint = message(
        RTM_NEWADDR, v4,
        join({attribute(IFA_ADDRESS, peer, 4), attribute(IFA_LOCAL, local, 4), text(IFA_LABEL, "nv0:1")}));
    ASSERT_EQ(nv_linux_parse_address(asMessage(pointToPoint), &address), 1);
    EXPECT_EQ(address.index, 70000);
    EXPECT_EQ(std::memcmp(address.local, local, 4), 0);
    ASSERT_TRUE(address.has_peer);
    EXPECT_EQ(std::memcmp(address.peer, peer, 4), 0);
    EXPECT_FALSE(address.has_broadcast);
    EXPECT_STREQ(address.label, "nv0:1");
    EXPECT_EQ(address.flags, 0x80u);

    const Bytes plain =
        message(RTM_NEWADDR, v4, join({attribute(IFA_ADDRESS, local, 4), attribute(IFA_BROADCAST, broadcast, 4)}));
    ASSERT_EQ(nv_linux_parse_address(asMessage(plain), &address), 1);
    EXPECT_FALSE(address.has_peer) << "one address is the local one";
    EXPECT_TRUE(address.has_broadcast);

    ifaddrmsg v6{};
    v6.ifa_family = AF_INET6;
    const std::uint8_t six[16] = {0xfd, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const Bytes flagged =
        message(RTM_NEWADDR, v6, join({attribute(IFA_ADDRESS, six, 16), value<std::uint32_t>(IFA_FLAGS, 0x800)}));
    ASSERT_EQ(nv_linux_parse_address(asMessage(flagged), &address), 1);
    EXPECT_EQ(address.flags, 0x800u) << "all 32 bits, past the header's byte";
    const Bytes wrongSize = message(RTM_NEWADDR, v6, attribute(IFA_ADDRESS, local, 4));
    EXPECT_EQ(nv_linux_parse_address(asMessage(wrongSize), &address), 0) << "an IPv4-sized IPv6 address";
    ifaddrmsg other{};
    other.ifa_family = AF_PACKET;
    EXPECT_EQ(
        nv_linux_parse_address(asMessage(message(RTM_NEWADDR, other, attribute(IFA_ADDRESS, local, 4))), &address), 0);

    if_stats_msg statsHeader{};
    statsHeader.ifindex = 9;
    rtnl_link_stats64 counters{};
    counters.rx_bytes = 123;
    const Bytes stats = message(RTM_NEWSTATS, statsHeader, attribute(IFLA_STATS_LINK_64, &counters, sizeof counters));
    std::int32_t index = 0;
    const nlattr* found = nullptr;
    ASSERT_EQ(nv_linux_parse_stats(asMessage(stats), &index, &found), 1);
    EXPECT_EQ(index, 9);
    nv_ifdata_t data{};
    ASSERT_EQ(nv_linux_ifdata(found, 1500, 1, &data), 1);
    EXPECT_EQ(data.ibytes, 123u);
    EXPECT_EQ(data.mtu, 1500u);
    EXPECT_EQ(nv_linux_ifdata(nullptr, 1500, 1, &data), 0);

    rtmsg routeHeader{};
    routeHeader.rtm_family = AF_INET;
    routeHeader.rtm_type = RTN_UNICAST;
    const Bytes route =
        message(RTM_NEWROUTE, routeHeader, join({value<std::int32_t>(RTA_OIF, 4), attribute(RTA_GATEWAY, peer, 4)}));
    nv_linux_route_t answer;
    ASSERT_EQ(nv_linux_parse_route(asMessage(route), &answer), 1);
    EXPECT_EQ(answer.interface, 4);
    ASSERT_TRUE(answer.has_gateway);
    EXPECT_EQ(std::memcmp(answer.gateway, peer, 4), 0);
    const Bytes badGateway = message(RTM_NEWROUTE, routeHeader, attribute(RTA_GATEWAY, six, 16));
    ASSERT_EQ(nv_linux_parse_route(asMessage(badGateway), &answer), 1);
    EXPECT_FALSE(answer.has_gateway);
}

TEST(NetlinkMessages, ALinksKindAndWhatItRunsOver) {
    ifinfomsg info{};
    info.ifi_index = 12;
    const Bytes linkinfo = attribute(IFLA_LINKINFO | NLA_F_NESTED, text(IFLA_INFO_KIND, "macvlan"));
    const Bytes layered = message(RTM_NEWLINK, info,
                                  join({text(IFLA_IFNAME, "nvmac"), linkinfo, value<std::int32_t>(IFLA_LINK, 4),
                                        value<std::int32_t>(IFLA_LINK_NETNSID, 1)}));
    nv_linux_link_t link;
    ASSERT_EQ(nv_linux_parse_link(asMessage(layered), &link), 1);
    EXPECT_STREQ(link.kind, "macvlan");
    EXPECT_EQ(link.lower, 4);
    EXPECT_TRUE(link.lower_elsewhere);

    const Bytes longKind = attribute(IFLA_LINKINFO | NLA_F_NESTED, text(IFLA_INFO_KIND, "averyveryverylongkind"));
    ASSERT_EQ(nv_linux_parse_link(asMessage(message(RTM_NEWLINK, info, join({text(IFLA_IFNAME, "nvk"), longKind}))),
                                  &link),
              1);
    EXPECT_STREQ(link.kind, "") << "a kind that does not fit is none";
}

}  // namespace
