// The daemon's listeners over real sockets, with the daemon's own logic
// behind them: what reaches the authority, what a busy caller gets, and what
// keeps a connection open.
#include "daemon/linux/listener.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "admin_protocol/admin_protocols.h"
#include "admin_protocol/linux/socket_channel.h"
#include "support/ipc/client.h"
#include "support/process.h"
#include "tests/daemon/fakes.h"
#include "tests/temporary_directory.h"

namespace netvane {
namespace {

using namespace std::chrono_literals;

class ListenerTest : public ::testing::Test {
protected:
    void start(AdminDaemon::Limits limits = AdminDaemon::defaultLimits(), ipc::ServerLimits serverLimits = {}) {
        AdminDaemon::Backends backends;
        backends.authorizer = authorizer_;
        backends.log = [this](std::string_view line) {
            const std::lock_guard guard(logMutex_);
            log_.emplace_back(line);
        };
        daemon_ = std::make_shared<AdminDaemon>(PairingStore::open(state_).value(), "1.0", backends, limits);
        app_ = makeAppListener(ipc::listenOnPath(appServiceSocketPath(dir_)).value(), "", daemon_, serverLimits);
        control_ =
            makeControlListener(ipc::listenOnPath(controlServiceSocketPath(dir_)).value(), "", daemon_, serverLimits);
    }
    void TearDown() override {
        if (app_) app_->stop();
        if (control_) control_->stop();
    }

    // Until the daemon's log has a line holding `text`.
    bool logged(const std::string& text) {
        for (int i = 0; i < 500; ++i) {
            {
                const std::lock_guard guard(logMutex_);
                for (const std::string& line : log_) {
                    if (line.find(text) != std::string::npos) return true;
                }
            }
            std::this_thread::sleep_for(10ms);
        }
        return false;
    }

    std::mutex logMutex_;
    std::vector<std::string> log_;
    testing::TemporaryDirectory temp_{"netvane-listener"};
    const std::string dir_ = temp_.path();
    const std::string state_ = dir_ + "/state";
    std::shared_ptr<testing::FakeAuthorizer> authorizer_ = std::make_shared<testing::FakeAuthorizer>();
    std::shared_ptr<AdminDaemon> daemon_;
    std::unique_ptr<ipc::Server> app_, control_;
};

// The authority names the approver by pid and start time, and the daemon
// checks that very process is alive around the question: the listener must
// hand over all three.
TEST_F(ListenerTest, TheAuthorityLearnsThePeersPidStartTimeAndProcess) {
    start();
    auto control = connectControlClient(dir_).value();
    EXPECT_FALSE(control.approvePairing("NO-SUCH-REQUEST", std::vector<std::uint8_t>(32)).ok());
    const auto calls = authorizer_->calls();
    ASSERT_EQ(calls.size(), 1u);
    const PeerIdentity& peer = calls[0].peer;
    EXPECT_EQ(peer.pid, ::getpid());
    EXPECT_EQ(peer.uid, ::getuid());
    EXPECT_EQ(peer.startTime, processStartTime(::getpid()));
    EXPECT_NE(peer.startTime, 0u);
    ASSERT_TRUE(peer.process);
    EXPECT_TRUE(peer.process->alive());
}

// Calls past a user's share wait for their turn, each is answered, and the
// connection goes on serving.
TEST_F(ListenerTest, CallsPastTheirShareAreAllAnsweredOnAnOpenConnection) {
    AdminDaemon::Limits limits = AdminDaemon::defaultLimits();
    limits.begin = {2, 20ms};
    start(limits);
    auto client = ipc::Client::connect(appServiceSocketPath(dir_)).value();
    const MethodDescription& begin = *AdminAppProtocol.find("beginPairingWithReply:");
    std::vector<std::thread> callers;
    for (int i = 0; i < 10; ++i) {
        auto reply = client.call(begin, {}, 5s);
        ASSERT_TRUE(reply.ok()) << i << ": " << reply.error().message;
        ASSERT_TRUE(std::holds_alternative<plist::Value>((*reply)[0])) << i;
    }
    auto status = client.call(*AdminAppProtocol.find("statusWithToken:reply:"), {std::nullopt}, 5s);
    EXPECT_TRUE(status.ok()) << "the connection is still served";
    EXPECT_EQ(daemon_->pendingPairings(::getuid()).size(), 1u);
}

// A request begun and not yet awaited has no time limit: its connection is
// not idle while it is pending.
TEST_F(ListenerTest, AConnectionWithAPendingRequestIsNotIdle) {
    ipc::ServerLimits serverLimits;
    serverLimits.idleDeadline = 300ms;
    start(AdminDaemon::defaultLimits(), serverLimits);
    auto app = connectAppClient(dir_).value();
    app.setReplyDeadline(5s);
    const std::string id = app.beginPairing().value();
    std::this_thread::sleep_for(1200ms);
    ASSERT_EQ(daemon_->pendingPairings(::getuid()).size(), 1u) << "the request went with an 'idle' connection";
    std::thread approver([&] {
        ASSERT_TRUE(logged("pairing " + id + " awaited"));
        auto control = connectControlClient(dir_).value();
        EXPECT_TRUE(control.approvePairing(id, std::vector<std::uint8_t>(32)).ok());
    });
    auto token = app.awaitPairing(id);
    approver.join();
    ASSERT_TRUE(token.ok()) << token.error().message;
    EXPECT_EQ(token->size(), 44u);
}

// When the approval cannot be saved, the waiting application is told at once
// that no answer will come, instead of waiting until its connection ends.
TEST_F(ListenerTest, AWaiterDroppedByAFailedSaveIsToldAtOnce) {
    start();
    ASSERT_EQ(::rmdir(state_.c_str()), 0);
    auto app = connectAppClient(dir_).value();
    app.setReplyDeadline(5s);
    const std::string id = app.beginPairing().value();
    std::thread approver([&] {
        ASSERT_TRUE(logged("pairing " + id + " awaited"));
        auto control = connectControlClient(dir_).value();
        auto approved = control.approvePairing(id, std::vector<std::uint8_t>(32));
        ASSERT_FALSE(approved.ok());
        EXPECT_NE(approved.error().message.find(state_ + "/pairings.plist"), std::string::npos)
            << approved.error().message;
    });
    const auto began = std::chrono::steady_clock::now();
    auto token = app.awaitPairing(id);
    approver.join();
    ASSERT_FALSE(token.ok());
    EXPECT_EQ(token.error().code, ipc::kDropped) << token.error().message;
    EXPECT_LT(std::chrono::steady_clock::now() - began, 4s);
}

}  // namespace
}  // namespace netvane
