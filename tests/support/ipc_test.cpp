#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <mutex>

#include "tests/temporary_directory.h"
#include <thread>

#include "support/ipc/client.h"
#include "support/ipc/server.h"
#include "support/ipc/stream.h"
#include "support/plist/plist.h"
#include "support/process.h"

namespace netvane::ipc {
namespace {

using W = WireType;

constexpr W kOptString[] = {W::optionalString};
constexpr W kStringAndError[] = {W::optionalString, W::optionalError};
constexpr W kDataArg[] = {W::data};
constexpr W kDict[] = {W::dictionary};
constexpr MethodDescription kMethods[] = {
    {"echo:reply:", kOptString, kStringAndError},
    {"later:reply:", kOptString, kStringAndError},
    {"size:reply:", kDataArg, kDict},
    {"drop:reply:", kOptString, kStringAndError},  // the session lets the reply go unanswered
    {"hold:reply:", kOptString, kStringAndError},  // answered when the test says so
};

// Replies the sessions hold for the test, and whether they pin their connections.
struct Held {
    std::mutex mutex;
    std::vector<ReplySender> replies;
    int handled = 0;
    std::atomic<bool> pinned{false};

    std::size_t count() {
        std::lock_guard lock(mutex);
        return replies.size();
    }
    std::size_t answerAll() {
        std::vector<ReplySender> answering;
        {
            std::lock_guard lock(mutex);
            answering.swap(replies);
        }
        for (const ReplySender& reply : answering) reply.send({plist::Value("held"), std::monostate{}});
        return answering.size();
    }
};
constexpr ProtocolDescription kTestProtocol{"TestProtocol", kMethods};

// Echoes its argument; "later:" answers from another thread after a pause;
// "fail" as argument answers with an error.
class EchoSession : public Session {
public:
    EchoSession(PeerCredentials peer, std::atomic<int>& ended, Held& held) : peer_(peer), ended_(ended), held_(held) {}

    void handle(const MethodDescription& method, std::vector<Argument> args, ReplySender reply) override {
        if (method.selector == "drop:reply:") return;
        if (method.selector == "hold:reply:") {
            std::lock_guard lock(held_.mutex);
            ++held_.handled;
            held_.replies.push_back(std::move(reply));
            return;
        }
        if (method.selector == "size:reply:") {
            reply.send({plist::Value(plist::Dictionary{{"size", args[0]->data()->size()}, {"uid", peer_.uid}})});
            return;
        }
        ReplySlot value = std::monostate{};
        if (args[0]) value = *args[0];
        ReplySlot error = std::monostate{};
        if (args[0] && *args[0]->string() == "fail") error = Error{"test.domain", 7, "failed"};
        if (method.selector == "later:reply:") {
            std::thread([reply, value, error] {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                reply.send({value, error});
                reply.send({plist::Value("second reply is ignored"), std::monostate{}});
            }).detach();
            return;
        }
        reply.send({value, error});
    }
    void invalidated() override { ++ended_; }
    bool pinned() override { return held_.pinned; }

private:
    PeerCredentials peer_;
    std::atomic<int>& ended_;
    Held& held_;
};

class IpcTest : public ::testing::Test {
protected:
    void TearDown() override { server_.reset(); }

    void startServer(ServerLimits limits = {}) {
        auto listener = listenOnPath(path_);
        ASSERT_TRUE(listener.ok()) << listener.error().message;
        ServiceDefinition service{&kTestProtocol, "", [this](const PeerCredentials& peer) {
                                      std::lock_guard lock(peerMutex_);
                                      peerSeen_ = peer;
                                      return std::make_shared<EchoSession>(peer, ended_, held_);
                                  },
                                  {}};
        server_ = std::make_unique<Server>(std::move(*listener), service, limits);
        server_->start();
    }

    Client connect() {
        auto client = Client::connect(path_);
        EXPECT_TRUE(client.ok()) << client.error().message;
        return std::move(*client);
    }

    // Writes raw bytes on a fresh connection and reports whether the server closed it.
    bool serverClosesAfter(const std::vector<std::uint8_t>& bytes) {
        Client client = connect();
        EXPECT_TRUE(writeFully(client.fd(), bytes.data(), bytes.size()).ok());
        std::uint8_t byte;
        return ::read(client.fd(), &byte, 1) == 0;
    }

    // Connections still in the listen backlog are not counted yet, so tests
    // wait for the sessions they expect to end, then check what remains.
    void waitForEnded(int count) {
        for (int i = 0; i < 10000 && ended_.load() < count; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        EXPECT_EQ(ended_.load(), count);
    }

    void waitForConnections(std::size_t count) {
        for (int i = 0; i < 500 && server_->connectionCount() != count; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        EXPECT_EQ(server_->connectionCount(), count);
    }

    netvane::testing::TemporaryDirectory temp_{"netvane-ipc"};
    const std::string dir_ = temp_.path();
    const std::string path_ = dir_ + "/test.sock";
    std::atomic<int> ended_{0};
    Held held_;
    std::mutex peerMutex_;
    PeerCredentials peerSeen_;  // the last connection's, written before its first call is served
    std::unique_ptr<Server> server_;
};

TEST(IpcFrame, NilEmptyStringValuesAndErrorsStayDistinct) {
    const Call call{"echo:reply:", 42, {std::nullopt, plist::Value(""), plist::Value(plist::Data{1})}};
    auto bytes = encodeCall(call);
    ASSERT_TRUE(bytes.ok());
    EXPECT_EQ(decodeCall(std::span(*bytes).subspan(kFrameHeaderBytes)).value(), call);
    const Reply reply{42, {std::monostate{}, plist::Value(""), Error{"d", -3, "m"}}};
    auto replyBytes = encodeReply(reply);
    ASSERT_TRUE(replyBytes.ok());
    EXPECT_EQ(decodeReply(std::span(*replyBytes).subspan(kFrameHeaderBytes)).value(), reply);
    const std::uint8_t oversize[4] = {0, 0x10, 0, 1};
    EXPECT_FALSE(frameBodyLength(oversize).ok());
}

TEST(IpcFrame, UIDsAreRefused) {
    // The protocol has no UIDs: a frame holding one is malformed.
    for (const plist::Value& root :
         {plist::Value(plist::Dictionary{{"call", "x:"}, {"seq", 1}, {"args", plist::Array{plist::Dictionary{{"value", plist::UID{1}}}}}}),
          plist::Value(plist::Dictionary{{"seq", 1}, {"reply", plist::Array{plist::Dictionary{{"value", plist::UID{1}}}}}})}) {
        auto body = plist::encodeBinary(root);
        ASSERT_TRUE(body.ok());
        EXPECT_FALSE(decodeCall(*body).ok());
        EXPECT_FALSE(decodeReply(*body).ok());
    }
}

TEST_F(IpcTest, CallsRepliesErrorsAndPeerCredentials) {
    startServer();
    Client client = connect();
    auto reply = client.call(kMethods[0], {plist::Value("hello")});
    ASSERT_TRUE(reply.ok()) << reply.error().message;
    EXPECT_EQ((*reply)[0], ReplySlot(plist::Value("hello")));
    EXPECT_TRUE(std::holds_alternative<std::monostate>((*reply)[1]));

    reply = client.call(kMethods[0], {std::nullopt});
    EXPECT_TRUE(std::holds_alternative<std::monostate>((*reply)[0]));
    reply = client.call(kMethods[1], {plist::Value("fail")});
    ASSERT_TRUE(reply.ok());
    EXPECT_EQ(std::get<Error>((*reply)[1]), (Error{"test.domain", 7, "failed"}));

    reply = client.call(kMethods[2], {plist::Value(plist::Data(1000))});
    ASSERT_TRUE(reply.ok());
    EXPECT_EQ(std::get<plist::Value>((*reply)[0]).find("size")->int64(), 1000);
    EXPECT_EQ(std::get<plist::Value>((*reply)[0]).find("uid")->uint64(), getuid());
    std::lock_guard lock(peerMutex_);
    EXPECT_EQ(peerSeen_.startTime, processStartTime(getpid())) << "the peer's start time names this process";
    EXPECT_NE(peerSeen_.startTime, 0u);

    EXPECT_EQ(client.call(kMethods[2], {plist::Value("not data")}).error().code, kBadArguments);
    EXPECT_EQ(Client::connect(dir_ + "/nobody.sock").error().code, kUnreachable);
}

TEST_F(IpcTest, MalformedFramesCloseOnlyTheirConnection) {
    startServer();
    Client bystander = connect();
    const auto good = *encodeCall(Call{"echo:reply:", 1, {plist::Value("x")}});
    auto withBody = [](std::vector<std::uint8_t> body) {
        const auto n = static_cast<std::uint32_t>(body.size());
        body.insert(body.begin(), {static_cast<std::uint8_t>(n >> 24), static_cast<std::uint8_t>(n >> 16),
                                   static_cast<std::uint8_t>(n >> 8), static_cast<std::uint8_t>(n)});
        return body;
    };
    const std::vector<std::vector<std::uint8_t>> bad = {
        {0x00, 0x10, 0x00, 0x01},                                                   // over 1 MiB
        {0, 0, 0, 0},                                                               // empty body
        withBody({'h', 'e', 'l', 'l', 'o'}),                                        // not a plist
        withBody(*plist::encodeBinary(plist::Value(plist::Array{}))),               // root not a dictionary
        *encodeCall(Call{"unknown:reply:", 1, {plist::Value("x")}}),                // unknown selector
        *encodeCall(Call{"size:reply:", 1, {plist::Value("x")}}),                   // wrong argument type
        *encodeCall(Call{"size:reply:", 1, {std::nullopt}}),                        // missing argument (nil)
        *encodeCall(Call{"echo:reply:", 1, {}}),                                    // wrong argument count
        withBody(*plist::encode(plist::Value(plist::Dictionary{}), plist::Format::Xml)),  // XML, not binary
    };
    for (std::size_t i = 0; i < bad.size(); ++i) EXPECT_TRUE(serverClosesAfter(bad[i])) << "case " << i;

    // A truncated frame: the peer hangs up mid-body.
    {
        Client client = connect();
        ASSERT_TRUE(writeFully(client.fd(), good.data(), good.size() - 3).ok());
    }
    waitForEnded(static_cast<int>(bad.size()) + 1);
    waitForConnections(1);
    auto reply = bystander.call(kMethods[0], {plist::Value("still here")});
    ASSERT_TRUE(reply.ok());
    EXPECT_EQ((*reply)[0], ReplySlot(plist::Value("still here")));
}

TEST_F(IpcTest, TenThousandBadFramesChangeNothing) {
    startServer();
    Client bystander = connect();
    const std::vector<std::uint8_t> garbage = {0, 0, 0, 4, 'j', 'u', 'n', 'k'};
    // One after the other: each bad peer waits to be hung up on.
    for (int i = 0; i < 10000; ++i) ASSERT_TRUE(serverClosesAfter(garbage)) << i;
    waitForEnded(10000);
    waitForConnections(1);
    EXPECT_TRUE(bystander.call(kMethods[0], {plist::Value("ok")}).ok());
}

TEST_F(IpcTest, LateRepliesAndInvalidationExactlyOnce) {
    startServer();
    {
        Client client = connect();
        auto reply = client.call(kMethods[1], {plist::Value("later")});
        ASSERT_TRUE(reply.ok());
        EXPECT_EQ((*reply)[0], ReplySlot(plist::Value("later")));
        // The second send of that reply was dropped: the next call gets its own answer.
        reply = client.call(kMethods[0], {plist::Value("next")});
        EXPECT_EQ((*reply)[0], ReplySlot(plist::Value("next")));
        // A late reply to a connection that closes before it arrives is dropped.
        auto call = *encodeCall(Call{"later:reply:", 9, {plist::Value("gone")}});
        ASSERT_TRUE(writeFully(client.fd(), call.data(), call.size()).ok());
    }
    waitForConnections(0);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(ended_.load(), 1);
}

TEST_F(IpcTest, ConnectionLimitRefusesExtraPeers) {
    ServerLimits limits;
    limits.maxConnections = 2;
    limits.reservedForRoot = 0;
    startServer(limits);
    Client a = connect(), b = connect();
    ASSERT_TRUE(a.call(kMethods[0], {std::nullopt}).ok());
    ASSERT_TRUE(b.call(kMethods[0], {std::nullopt}).ok());
    Client c = connect();
    EXPECT_EQ(c.call(kMethods[0], {std::nullopt}).error().code, kConnectionLost);
    EXPECT_TRUE(a.call(kMethods[0], {std::nullopt}).ok());
}

TEST_F(IpcTest, ConcurrentClientsEachGetTheirOwnReplies) {
    startServer();
    constexpr int kClients = 16, kCalls = 200;
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kClients; ++t) {
        threads.emplace_back([&, t] {
            Client client = connect();
            for (int i = 0; i < kCalls; ++i) {
                const std::string text = std::to_string(t) + ":" + std::to_string(i);
                auto reply = client.call(kMethods[i % 10 == 0 ? 1 : 0], {plist::Value(text)});
                if (!reply.ok() || (*reply)[0] != ReplySlot(plist::Value(text))) ++mismatches;
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(mismatches.load(), 0);
    server_->stop();
    EXPECT_EQ(ended_.load(), kClients);
}

// A call its session drops unanswered is reported as dropped at once, rather
// than left open until the connection ends; the connection goes on.
TEST_F(IpcTest, DroppedCallsAreSaidToBeDroppedAndTheConnectionGoesOn) {
    startServer();
    Client client = connect();
    auto dropped = client.call(kMethods[3], {plist::Value("x")}, std::chrono::seconds(5));
    ASSERT_FALSE(dropped.ok());
    EXPECT_EQ(dropped.error().code, kDropped) << dropped.error().message;
    auto after = client.call(kMethods[0], {plist::Value("after")});
    ASSERT_TRUE(after.ok()) << after.error().message;
    EXPECT_EQ((*after)[0], ReplySlot(plist::Value("after")));
    EXPECT_EQ(ended_.load(), 0);
}

// However many calls a peer sends at once, the server holds only a few of
// them unanswered; the rest wait in the socket, unread, until answers go out.
TEST_F(IpcTest, AConnectionWithCallsOutstandingIsNotReadFurther) {
    ServerLimits limits;
    limits.maxOutstandingCalls = 3;
    startServer(limits);
    Client client = connect();
    std::vector<std::uint8_t> calls;
    for (std::uint64_t seq = 1; seq <= 10; ++seq) {
        const auto call = *encodeCall(Call{"hold:reply:", seq, {plist::Value("x")}});
        calls.insert(calls.end(), call.begin(), call.end());
    }
    ASSERT_TRUE(writeFully(client.fd(), calls.data(), calls.size()).ok());
    for (int i = 0; i < 500 && held_.count() < 3; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(held_.count(), 3u) << "only as many calls as may be outstanding were read";
    // Each answer lets the server read one call more, until all are answered.
    std::size_t answered = 0, received = 0;
    FrameReader reader(client.fd());
    while (received < 10) {
        if (answered == received) {
            for (int i = 0; i < 1000 && held_.count() == 0; ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
            }
            answered += held_.answerAll();
            ASSERT_GT(answered, received) << "the server stopped reading";
        }
        ASSERT_TRUE(reader.next().ok());
        ++received;
    }
    std::lock_guard lock(held_.mutex);
    EXPECT_EQ(held_.handled, 10);
}

// A session with a reason to stay (a pending request) keeps its connection
// past the idle deadline; once it has none, the connection is idle again.
TEST_F(IpcTest, APinnedConnectionIsNotIdle) {
    ServerLimits limits;
    limits.idleDeadline = std::chrono::milliseconds(200);
    held_.pinned = true;
    startServer(limits);
    Client client = connect();
    ASSERT_TRUE(client.call(kMethods[0], {std::nullopt}).ok());
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    EXPECT_EQ(ended_.load(), 0) << "closed as idle while pinned";
    held_.pinned = false;
    waitForEnded(1);
}

TEST_F(IpcTest, StopEndsOpenConnections) {
    startServer();
    Client client = connect();
    ASSERT_TRUE(client.call(kMethods[0], {std::nullopt}).ok());
    server_->stop();
    EXPECT_EQ(ended_.load(), 1);
    EXPECT_EQ(client.call(kMethods[0], {std::nullopt}).error().code, kConnectionLost);
}

}  // namespace
}  // namespace netvane::ipc
