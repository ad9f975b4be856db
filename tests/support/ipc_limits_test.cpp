// What one local user can make the IPC server spend: connections, time,
// buffer memory and decoding work. Peers of other uids are real: a thread
// changes only its own credentials (the raw system call, not the libc
// wrapper that changes every thread), and the kernel records them at connect.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <thread>

#include "tests/temporary_directory.h"

#include "support/ipc/client.h"
#include "support/ipc/server.h"
#include "support/ipc/socket_activation.h"
#include "support/ipc/stream.h"
#include "support/plist/plist.h"

namespace netvane::ipc {
namespace {

using namespace std::chrono_literals;
using W = WireType;

constexpr W kOptString[] = {W::optionalString};
constexpr W kStringAndError[] = {W::optionalString, W::optionalError};
constexpr W kData[] = {W::data};
constexpr MethodDescription kMethods[] = {
    {"echo:reply:", kOptString, kStringAndError},
    {"slow:reply:", kOptString, kStringAndError},  // answers after kSlowReply
    {"blob:reply:", kOptString, kData},            // answers with kBlobBytes
};
constexpr ProtocolDescription kProtocol{"LimitsProtocol", kMethods};
constexpr auto kSlowReply = 800ms;
constexpr std::size_t kBlobBytes = 512 << 10;  // fits one frame, not the socket buffers

class Session final : public ipc::Session {
public:
    void handle(const MethodDescription& method, std::vector<Argument> args, ReplySender reply) override {
        if (method.selector == "blob:reply:") return reply.send({plist::Value(plist::Data(kBlobBytes, 7))});
        ReplySlot value = std::monostate{};
        if (args[0]) value = std::move(*args[0]);
        if (method.selector == "slow:reply:") {
            std::thread([reply, value] {
                std::this_thread::sleep_for(kSlowReply);
                reply.send({value, std::monostate{}});
            }).detach();
            return;
        }
        reply.send({value, std::monostate{}});
    }
};

// Runs `body` on a thread whose own uid and gid are `uid`.
template <class Body>
void asUser(uid_t uid, Body body) {
    std::thread([&] {
        if (::syscall(SYS_setresgid, uid, uid, uid) != 0 || ::syscall(SYS_setresuid, uid, uid, uid) != 0) {
            ADD_FAILURE() << "cannot become uid " << uid;
            return;
        }
        body();
    }).join();
}

// True when the server closes `fd` (end of stream) within `limit`.
bool closedWithin(int fd, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    std::uint8_t buffer[4096];
    while (std::chrono::steady_clock::now() < end) {
        pollfd entry{fd, POLLIN, 0};
        if (::poll(&entry, 1, 50) <= 0) continue;
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (n == 0 || (n < 0 && errno == ECONNRESET)) return true;
    }
    return false;
}

// The deadlines and the read budget hold for any peer; no other uid is needed.
class IpcLimitsTest : public ::testing::Test {
protected:
    void TearDown() override {
        if (server_) server_->stop();
    }

    void start(ServerLimits limits) {
        auto listener = listenOnPath(path_);
        ASSERT_TRUE(listener.ok()) << listener.error().message;
        ServiceDefinition service{
            &kProtocol, "", [](const PeerCredentials&) { return std::make_shared<Session>(); }, {}};
        server_ = std::make_unique<Server>(std::move(*listener), service, std::move(limits));
        server_->start();
    }

    bool echoes(Client& client) {
        auto reply = client.call(kMethods[0], {plist::Value("x")});
        return reply.ok() && (*reply)[0] == ReplySlot(plist::Value("x"));
    }

    // Until the server has taken in (and kept or refused) every connection
    // offered: its count has not moved for a while.
    void settle() {
        std::size_t last = server_->connectionCount();
        for (int quiet = 0, i = 0; quiet < 10 && i < 1000; ++i) {
            std::this_thread::sleep_for(10ms);
            const std::size_t now = server_->connectionCount();
            quiet = now == last ? quiet + 1 : 0;
            last = now;
        }
    }
    // How many of `fds` the server still holds open, all looked at at once.
    static std::size_t stillOpen(std::vector<UniqueFd>& fds) {
        std::vector<pollfd> entries;
        for (auto& fd : fds) entries.push_back(pollfd{fd.get(), POLLIN, 0});
        ::poll(entries.data(), entries.size(), 0);
        std::size_t open = 0;
        for (const pollfd& entry : entries) {
            std::uint8_t byte;
            const bool readable = (entry.revents & POLLIN) != 0;
            const bool ended = (entry.revents & (POLLHUP | POLLERR)) != 0 ||
                               (readable && ::recv(entry.fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK) <= 0);
            open += ended ? 0 : 1;
        }
        return open;
    }

    netvane::testing::TemporaryDirectory temp_{"netvane-ipc-limits"};
    const std::string dir_ = temp_.path();
    const std::string path_ = dir_ + "/limits.sock";
    std::unique_ptr<Server> server_;
};

// Connections of other uids: the kernel records the connecting thread's own.
class IpcUidLimitsTest : public IpcLimitsTest {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "peers of other uids need root";
        ASSERT_EQ(::chmod(dir_.c_str(), 0755), 0);  // other uids must reach the socket
    }

    bool echoesAs(uid_t uid) {
        bool ok = false;
        asUser(uid, [&] {
            auto client = Client::connect(path_);
            ok = client.ok() && echoes(*client);
        });
        return ok;
    }
    std::vector<UniqueFd> openAs(uid_t uid, int count) {
        std::vector<UniqueFd> fds;
        asUser(uid, [&] {
            for (int i = 0; i < count; ++i) {
                auto client = Client::connect(path_);
                if (client.ok()) fds.emplace_back(::dup(client->fd()));
            }
        });
        settle();
        return fds;
    }
};

// One user holding idle connections by the hundred takes every slot nobody
// else wants, and gives them up one by one as others come: another user, and
// root, are still served.
TEST_F(IpcUidLimitsTest, IdleFloodFromOneUserLeavesOthersServed) {
    start({});
    std::vector<UniqueFd> flood = openAs(61001, 300);
    const ServerLimits defaults;
    EXPECT_EQ(stillOpen(flood), defaults.maxConnections - defaults.reservedForRoot);
    EXPECT_TRUE(echoesAs(61002));
    EXPECT_TRUE(echoesAs(0));
}

// A person with many uids (user namespaces give each user thousands) gains
// nothing by them: eight uids holding every slot still leave room for a
// fresh one, taken from the oldest idle connection of the heaviest of them.
TEST_F(IpcUidLimitsTest, EightUidsHoldingEverySlotLeaveAFreshUidServed) {
    ServerLimits limits;
    limits.maxConnections = 64;
    limits.reservedForRoot = 8;
    start(limits);
    std::vector<std::vector<UniqueFd>> held;
    for (uid_t uid = 61001; uid <= 61008; ++uid) held.push_back(openAs(uid, 7));
    std::vector<UniqueFd> more = openAs(61001, 3);
    EXPECT_EQ(stillOpen(more), 0u) << "the table is full for users";
    EXPECT_TRUE(echoesAs(61009)) << "a fresh uid is served";
    settle();
    std::size_t open = 0;
    for (auto& fds : held) open += stillOpen(fds);
    EXPECT_EQ(open, 55u) << "exactly one connection made way";
    EXPECT_TRUE(echoesAs(0));
}

TEST_F(IpcUidLimitsTest, UsersShareTheTableAndLeaveRootItsReservedSlots) {
    ServerLimits limits;
    limits.maxConnections = 8;
    limits.reservedForRoot = 2;
    start(limits);
    std::vector<UniqueFd> first = openAs(61001, 6);
    EXPECT_EQ(stillOpen(first), 6u) << "alone, a user may hold every slot but root's";
    std::vector<UniqueFd> second = openAs(61002, 6);
    EXPECT_EQ(stillOpen(second), 3u) << "a second user gets its fair half";
    EXPECT_EQ(stillOpen(first), 3u);
    std::vector<UniqueFd> root = openAs(0, 3);
    EXPECT_EQ(stillOpen(root), 3u) << "root's reserve, then its fair share";
    EXPECT_EQ(stillOpen(first) + stillOpen(second), 5u);
}

// Making way never costs a call: a connection displaced while its calls run
// answers them first and only then goes.
TEST_F(IpcUidLimitsTest, ABusyConnectionMakesWayOnlyOnceItsCallIsAnswered) {
    ServerLimits limits;
    limits.maxConnections = 2;
    limits.reservedForRoot = 0;
    start(limits);
    std::optional<Client> a, b;
    asUser(61001, [&] {
        auto first = Client::connect(path_), second = Client::connect(path_);
        ASSERT_TRUE(first.ok() && second.ok());
        a.emplace(std::move(*first));
        b.emplace(std::move(*second));
    });
    ASSERT_TRUE(a && b);
    std::optional<Result<std::vector<ReplySlot>>> slow[2];
    std::thread first([&] { slow[0] = a->call(kMethods[1], {plist::Value("a")}); });
    std::thread second([&] { slow[1] = b->call(kMethods[1], {plist::Value("b")}); });
    std::this_thread::sleep_for(200ms);  // both calls are in the server's hands
    EXPECT_TRUE(echoesAs(61002)) << "the newcomer is served at once";
    first.join();
    second.join();
    for (auto& reply : slow) {
        ASSERT_TRUE(reply && reply->ok()) << (reply ? reply->error().message : "no reply");
    }
    EXPECT_NE(echoes(*a), echoes(*b)) << "exactly one of them made way, after its call was answered";
}

// Progress does not buy time: a frame must be whole within its deadline
// from its first byte, however steadily its bytes trickle in.
TEST_F(IpcLimitsTest, TricklingFrameRunsIntoItsDeadline) {
    ServerLimits limits;
    limits.frameDeadline = 300ms;
    start(limits);
    auto client = Client::connect(path_);
    ASSERT_TRUE(client.ok());
    const auto began = std::chrono::steady_clock::now();
    const std::uint8_t header[] = {0, 0, 0, 100};
    ASSERT_TRUE(writeFully(client->fd(), header, sizeof header).ok());
    // A byte every 50 ms would finish the frame after 5 s; a timer that
    // restarted with each byte would never run out meanwhile.
    bool closed = false;
    for (int i = 0; i < 99 && !closed; ++i) {
        const std::uint8_t byte = 'b';
        if (::send(client->fd(), &byte, 1, MSG_NOSIGNAL) != 1) break;
        closed = closedWithin(client->fd(), 50ms);
    }
    closed = closed || closedWithin(client->fd(), 100ms);
    const auto took = std::chrono::steady_clock::now() - began;
    EXPECT_TRUE(closed);
    EXPECT_LT(took, 3s) << "the connection lived as long as bytes kept coming";
}

TEST_F(IpcLimitsTest, IdleConnectionsCloseButAWaitingCallIsNotIdle) {
    ServerLimits limits;
    limits.idleDeadline = 300ms;
    start(limits);
    auto idle = Client::connect(path_);
    ASSERT_TRUE(idle.ok());
    ASSERT_TRUE(echoes(*idle));
    EXPECT_TRUE(closedWithin(idle->fd(), 2000ms));

    auto waiting = Client::connect(path_);
    ASSERT_TRUE(waiting.ok());
    auto reply = waiting->call(kMethods[1], {plist::Value("late")});  // longer than the idle deadline
    ASSERT_TRUE(reply.ok()) << reply.error().message;
    EXPECT_EQ((*reply)[0], ReplySlot(plist::Value("late")));
    EXPECT_TRUE(echoes(*waiting)) << "idle time counts from the reply, not from the call";
}

// A peer that takes its reply a byte at a time holds the replying thread
// (possibly another client's) only until the reply deadline.
TEST_F(IpcLimitsTest, SlowReaderIsCutOffAtTheReplyDeadline) {
    ServerLimits limits;
    limits.replyDeadline = 300ms;
    start(limits);
    auto client = Client::connect(path_);
    ASSERT_TRUE(client.ok());
    const auto call = *encodeCall(Call{"blob:reply:", 1, {std::nullopt}});
    ASSERT_TRUE(writeFully(client->fd(), call.data(), call.size()).ok());
    // A byte now and then, for well past the deadline...
    std::size_t received = 0;
    for (const auto end = std::chrono::steady_clock::now() + 1500ms; std::chrono::steady_clock::now() < end;) {
        std::uint8_t byte;
        if (::recv(client->fd(), &byte, 1, 0) == 1) ++received;
        std::this_thread::sleep_for(5ms);
    }
    // ...then whatever is left: the reply must have been cut off.
    std::vector<std::uint8_t> rest(64 * 1024);
    bool ended = false;
    for (const auto end = std::chrono::steady_clock::now() + 5s; !ended && std::chrono::steady_clock::now() < end;) {
        const ssize_t n = ::recv(client->fd(), rest.data(), rest.size(), 0);
        ended = n <= 0;
        received += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    EXPECT_TRUE(ended);
    EXPECT_LT(received, kBlobBytes) << "the whole reply went out to a peer that took over a second per kilobyte";
}

// Frame buffers grow with what arrives, out of one shared budget: a peer
// that would take more than the budget is closed, one with an ordinary call
// is never refused for it.
TEST_F(IpcLimitsTest, BigFramesComeOutOfASharedBudget) {
    constexpr std::size_t kBudget = 256 * 1024;
    ServerLimits limits;
    limits.readBudget = std::make_shared<ReadBudget>(kBudget);
    start(limits);
    const auto budgetSettles = [&](auto predicate) {
        for (int i = 0; i < 200 && !predicate(limits.readBudget->available()); ++i) std::this_thread::sleep_for(10ms);
        return limits.readBudget->available();
    };

    // A frame the budget could hold is announced, and only a little of it sent.
    auto announcer = Client::connect(path_);
    ASSERT_TRUE(announcer.ok());
    const std::uint8_t header[] = {0, 0x03, 0, 0};  // 192 KiB announced
    ASSERT_TRUE(writeFully(announcer->fd(), header, sizeof header).ok());
    const std::vector<std::uint8_t> start(20 * 1024, 'x');
    ASSERT_TRUE(writeFully(announcer->fd(), start.data(), start.size()).ok());
    std::this_thread::sleep_for(100ms);
    EXPECT_GE(limits.readBudget->available(), kBudget - 32 * 1024) << "what a header announces buys nothing";
    const std::vector<std::uint8_t> more(150 * 1024, 'x');
    ASSERT_TRUE(writeFully(announcer->fd(), more.data(), more.size()).ok());
    EXPECT_LT(budgetSettles([&](std::size_t left) { return left < kBudget - 128 * 1024; }), kBudget - 128 * 1024)
        << "bytes that arrive are paid from the budget";

    // Another peer wants more than is left: it is closed, the first is not.
    auto greedy = Client::connect(path_);
    ASSERT_TRUE(greedy.ok());
    const std::uint8_t big[] = {0, 0x08, 0, 0};  // 512 KiB announced
    ASSERT_TRUE(writeFully(greedy->fd(), big, sizeof big).ok());
    const std::vector<std::uint8_t> body(400 * 1024, 'x');
    (void)writeFully(greedy->fd(), body.data(), body.size());  // may fail once the server hangs up
    EXPECT_TRUE(closedWithin(greedy->fd(), 2000ms));
    auto modest = Client::connect(path_);
    ASSERT_TRUE(modest.ok());
    EXPECT_TRUE(echoes(*modest));
    ::shutdown(announcer->fd(), SHUT_RDWR);
    EXPECT_EQ(budgetSettles([&](std::size_t left) { return left == kBudget; }), kBudget) << "everything is given back";
}

// A binary document whose array names one data object many times: small on
// the wire, many times its size once decoded.
std::vector<std::uint8_t> sharedDataCall(std::size_t dataBytes, std::uint8_t references) {
    std::vector<std::uint8_t> out = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    std::vector<std::uint64_t> offsets;
    auto begin = [&] { offsets.push_back(out.size()); };
    auto ascii = [&](std::string_view text) {
        begin();
        out.push_back(static_cast<std::uint8_t>(0x50 | text.size()));
        out.insert(out.end(), text.begin(), text.end());
    };
    begin();  // 0: {"call": 4, "seq": 5, "args": 6}
    out.insert(out.end(), {0xD3, 1, 2, 3, 4, 5, 6});
    ascii("call");                    // 1
    ascii("seq");                     // 2
    ascii("args");                    // 3
    ascii("echo:reply:");             // 4
    begin();                          // 5: 1
    out.insert(out.end(), {0x10, 1});
    begin();                          // 6: [7]
    out.insert(out.end(), {0xA1, 7});
    begin();                          // 7: {"value": 9}
    out.insert(out.end(), {0xD1, 8, 9});
    ascii("value");                   // 8
    begin();                          // 9: [10, 10, ...]
    out.insert(out.end(), {0xAF, 0x10, references});
    out.insert(out.end(), references, 10);
    begin();                          // 10: data
    out.insert(out.end(), {0x4F, 0x12});
    for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(dataBytes >> shift));
    out.insert(out.end(), dataBytes, 0xAB);
    const std::uint64_t table = out.size();
    for (std::uint64_t offset : offsets) {
        for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(offset >> shift));
    }
    const std::uint8_t trailer[32] = {0, 0, 0, 0, 0, 0, 4, 1, 0, 0, 0, 0, 0, 0, 0, 11, 0, 0, 0, 0, 0, 0, 0, 0};
    out.insert(out.end(), trailer, trailer + 24);
    for (int shift = 56; shift >= 0; shift -= 8) out.push_back(static_cast<std::uint8_t>(table >> shift));
    return out;
}

TEST(IpcCallDecoding, ExpansionObjectCountAndUnknownKeysAreRefused) {
    // The document itself is sound: files may decode it; a call may not.
    const auto bomb = sharedDataCall(64 * 1024, 63);
    auto asFile = plist::decodeBinary(bomb);
    ASSERT_TRUE(asFile.ok()) << asFile.error().message;
    EXPECT_FALSE(decodeCall(bomb).ok());
    EXPECT_TRUE(decodeCall(sharedDataCall(64 * 1024, 2)).ok()) << "a little sharing stays within the budget";

    plist::Array many(kMaxCallObjects, plist::Value(1));
    const auto crowded = encodeCall(Call{"echo:reply:", 1, {plist::Value(many)}});
    ASSERT_TRUE(crowded.ok());
    EXPECT_FALSE(decodeCall(std::span(*crowded).subspan(kFrameHeaderBytes)).ok());

    const plist::Value extra = plist::Dictionary{{"call", "echo:reply:"}, {"seq", 1}, {"args", plist::Array{}}, {"x", 1}};
    EXPECT_FALSE(decodeCall(*plist::encodeBinary(extra)).ok());
    const plist::Value exact = plist::Dictionary{{"call", "echo:reply:"}, {"seq", 1}, {"args", plist::Array{}}};
    EXPECT_TRUE(decodeCall(*plist::encodeBinary(exact)).ok());
}

// Descriptors handed over under a service's name are served only when they
// are what we would have made ourselves.
TEST(SocketActivation, OnlyAListeningUnixStreamSocketIsTaken) {
    netvane::testing::TemporaryDirectory temp{"netvane-activation"};
    auto listening = listenOnPath(temp.path() + "/s.sock");
    ASSERT_TRUE(listening.ok());
    EXPECT_TRUE(checkListeningUnixStream(listening->get()).ok());

    UniqueFd unbound(::socket(AF_UNIX, SOCK_STREAM, 0));
    UniqueFd datagram(::socket(AF_UNIX, SOCK_DGRAM, 0));
    UniqueFd inet(::socket(AF_INET, SOCK_STREAM, 0));
    UniqueFd file(::open(temp.path().c_str(), O_RDONLY | O_DIRECTORY));
    for (const int fd : {unbound.get(), datagram.get(), inet.get(), file.get()}) {
        auto checked = checkListeningUnixStream(fd);
        ASSERT_FALSE(checked.ok()) << fd;
        EXPECT_EQ(checked.error().code, EINVAL);
    }
    EXPECT_EQ(checkListeningUnixStream(9999).error().code, EBADF);
}

}  // namespace
}  // namespace netvane::ipc
