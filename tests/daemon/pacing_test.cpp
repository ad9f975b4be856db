// What one user's calls may cost the daemon, and what they may cost the
// others: calls past a user's share wait for that user's turn and are then
// answered as ever; tunnel scans are shared; log lines are shared out. The
// daemon's clock moves only when a test, or a paced wait, moves it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <future>
#include <thread>

#include "admin_protocol/admin_error.h"
#include "daemon/rate_limiter.h"
#include "daemon/shared_tunnel_scan.h"
#include "tests/daemon/daemon_fixture.h"

namespace netvane {
namespace {

using namespace std::chrono_literals;
using testing::codeOf;
using testing::DaemonTest;
using testing::kGrantedAuthorization;

constexpr std::uint32_t kGreedy = 501, kOther = 502;

TEST(RateLimiter, LogLinesStopAtTheBurstAndComeBackOnePerRefill) {
    std::chrono::steady_clock::time_point now{};
    RateLimiter limiter({3, 1000ms}, [&] { return now; });
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(limiter.allow(kGreedy)) << i;
    EXPECT_FALSE(limiter.allow(kGreedy));
    EXPECT_TRUE(limiter.allow(kOther)) << "another user's bucket is its own";
    now += 999ms;
    EXPECT_FALSE(limiter.allow(kGreedy));
    now += 1ms;
    EXPECT_TRUE(limiter.allow(kGreedy));
    EXPECT_FALSE(limiter.allow(kGreedy));
    now += 1h;
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(limiter.allow(kGreedy)) << "never more than the burst: " << i;
    EXPECT_FALSE(limiter.allow(kGreedy));
}

TEST(RateLimiter, TurnsPastTheBurstQueueUpOneRefillApart) {
    std::chrono::steady_clock::time_point now{};
    RateLimiter limiter({2, 100ms}, [&] { return now; });
    const auto start = now;
    EXPECT_EQ(limiter.reserve(kGreedy), start);
    EXPECT_EQ(limiter.reserve(kGreedy), start);
    EXPECT_EQ(limiter.reserve(kGreedy), start + 100ms);
    EXPECT_EQ(limiter.reserve(kGreedy), start + 200ms) << "owed turns add up";
    EXPECT_EQ(limiter.reserve(kOther), start) << "another user does not queue behind";
    now += 250ms;
    EXPECT_EQ(limiter.reserve(kGreedy), start + 300ms);
    now += 1h;
    EXPECT_EQ(limiter.reserve(kGreedy), now) << "a rested bucket is full again";
    EXPECT_FALSE(limiter.allow(kGreedy) && limiter.allow(kGreedy)) << "allow never owes";
}

using Pacing = DaemonTest;

TEST_F(Pacing, BeginsPastTheBurstWaitTheirTurnAndAreAllAnswered) {
    const auto limits = AdminDaemon::defaultLimits();
    const SessionIdentity session = daemon_->makeSessionIdentity();
    std::string last;
    for (std::uint32_t i = 0; i < limits.begin.burst + 3; ++i) {
        auto id = daemon_->beginPairing(kGreedy, session);
        ASSERT_TRUE(id) << i;
        last = *id;
    }
    const auto waited = waits();
    ASSERT_EQ(waited.size(), 3u) << "only the begins past the burst waited";
    for (const auto wait : waited) EXPECT_EQ(wait, limits.begin.refill);
    const auto pending = daemon_->pendingPairings(kGreedy);
    ASSERT_EQ(pending.size(), 1u);
    EXPECT_EQ(*pending[0].find("id")->string(), last);

    EXPECT_TRUE(daemon_->beginPairing(kOther, session));
    EXPECT_EQ(waits().size(), 3u) << "another user's begin waits for nobody";
    const auto lines = logLines();
    EXPECT_NE(std::find(lines.begin(), lines.end(),
                        "uid 501's pairing request waits 2000 ms for its turn: more than its share come in a row"),
              lines.end());
}

TEST_F(Pacing, UnpairFloodIsAnsweredEveryTimeAtItsPace) {
    const std::string token = pairThroughWorkflow(kGreedy, daemon_->makeSessionIdentity());
    const auto limits = AdminDaemon::defaultLimits();
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(daemon_->unpair("not the token", kGreedy)) << i;
    EXPECT_EQ(waits().size(), 20u - limits.unpair.burst);
    EXPECT_TRUE(daemon_->isPaired(token, kGreedy));
    EXPECT_TRUE(daemon_->unpair(token, kGreedy)) << "an unpair past the burst still unpairs";
    EXPECT_FALSE(daemon_->isPaired(token, kGreedy));
    EXPECT_TRUE(PairingStore::load(dir_).value().pairings.empty());
}

TEST_F(Pacing, TheAuthorityIsAskedAtItsPaceNeverRefusedUnasked) {
    const SessionIdentity session = daemon_->makeSessionIdentity();
    const auto burst = AdminDaemon::defaultLimits().authority.burst;
    for (std::uint32_t i = 0; i < burst + 2; ++i) {
        EXPECT_EQ(codeOf(daemon_->approvePairing("missing", kGrantedAuthorization, PeerIdentity{1, kGreedy})),
                  AdminError::unknownRequest);
    }
    const std::string id = *daemon_->beginPairing(kGreedy, session);
    EXPECT_TRUE(daemon_->approvePairing(id, kGrantedAuthorization, PeerIdentity{1, kGreedy}));
    EXPECT_TRUE(daemon_->unpairAll(kGrantedAuthorization, PeerIdentity{1, kGreedy}));
    EXPECT_EQ(authorizer_->calls().size(), burst + 4) << "every question reached the authority";
    EXPECT_EQ(waits().size(), 4u);
}

TEST_F(Pacing, LogLinesAreSharedOutPerUserAndDropsAreCounted) {
    const RateLimiter::Rate unlimited{1u << 30, 1ms};
    limits_ = AdminDaemon::Limits{unlimited, unlimited, unlimited, {3, 1000ms}, {}};
    daemon_ = makeDaemon(PairingStore::open(dir_).value());
    const SessionIdentity session = daemon_->makeSessionIdentity();
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(daemon_->beginPairing(kGreedy, session));
    ASSERT_TRUE(daemon_->beginPairing(kOther, session));
    auto lines = logLines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_TRUE(lines[3].starts_with("pairing requested by uid 502 ")) << lines[3];
    now_ += 1000ms;
    ASSERT_TRUE(daemon_->beginPairing(kGreedy, session));
    lines = logLines();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_EQ(lines[4], "7 earlier lines about uid 501 were dropped: too many");
    EXPECT_TRUE(lines[5].starts_with("pairing requested by uid 501 ")) << lines[5];
}

// A source whose scans take as long as the test says, on the test's clock.
class TimedSource : public TunnelOwnerSource {
public:
    TimedSource(std::chrono::steady_clock::time_point& now, std::chrono::milliseconds takes)
        : now_(now), takes_(takes) {}
    std::vector<TunnelOwnerEntry> scan() override {
        now_ += takes_;
        ++scans;
        return {{"tun" + std::to_string(scans), 7, "vpnd", "/usr/sbin/vpnd"}};
    }
    int scans = 0;

private:
    std::chrono::steady_clock::time_point& now_;
    std::chrono::milliseconds takes_;
};

TEST(SharedTunnelScan, RecentScansAnswerEveryoneAndLongScansAreSpacedOut) {
    std::chrono::steady_clock::time_point now{};
    auto source = std::make_shared<TimedSource>(now, 10ms);
    SharedTunnelScan scans(source, {1000ms, 4}, [&] { return now; });
    for (int i = 0; i < 100; ++i) EXPECT_EQ(scans.owners().at(0).interface, "tun1");
    EXPECT_EQ(source->scans, 1) << "a hundred callers, one scan";
    now += 999ms;
    EXPECT_EQ(scans.owners().at(0).interface, "tun1");
    now += 1ms;
    EXPECT_EQ(scans.owners().at(0).interface, "tun2") << "a second later the scan is made again";

    // A scan that took 2 s is not made again for four times as long.
    auto slow = std::make_shared<TimedSource>(now, 2000ms);
    SharedTunnelScan slowScans(slow, {1000ms, 4}, [&] { return now; });
    slowScans.owners();
    now += 7999ms;
    slowScans.owners();
    EXPECT_EQ(slow->scans, 1);
    now += 1ms;
    slowScans.owners();
    EXPECT_EQ(slow->scans, 2);
    EXPECT_TRUE(SharedTunnelScan(nullptr, {}).owners().empty());
}

// A source that holds its scan until released, counting callers meanwhile.
class HeldSource : public TunnelOwnerSource {
public:
    std::vector<TunnelOwnerEntry> scan() override {
        ++scans;
        started.set_value();
        release.get_future().wait();
        return {{"tun0", 1, "a", "/a"}};
    }
    std::atomic<int> scans{0};
    std::promise<void> started, release;
};

TEST(SharedTunnelScan, CallersDuringAScanWaitForItInsteadOfScanningAgain) {
    auto source = std::make_shared<HeldSource>();
    SharedTunnelScan scans(source, {0ms, 0});
    std::vector<std::future<std::vector<TunnelOwnerEntry>>> callers;
    callers.push_back(std::async(std::launch::async, [&] { return scans.owners(); }));
    source->started.get_future().wait();
    for (int i = 0; i < 8; ++i) callers.push_back(std::async(std::launch::async, [&] { return scans.owners(); }));
    std::this_thread::sleep_for(50ms);  // let them reach the wait; a late one would scan alone, and be caught below
    source->release.set_value();
    for (auto& caller : callers) EXPECT_EQ(caller.get().size(), 1u);
    EXPECT_EQ(source->scans.load(), 1);
}

TEST_F(Pacing, TunnelScansAreNeverRefused) {
    for (std::uint32_t uid = 1000; uid < 1050; ++uid) {
        for (int i = 0; i < 20; ++i) daemon_->scanTunnelOwners();
    }
    EXPECT_TRUE(waits().empty());
}

// Every refusal of the pair right says, in the log, whose and why.
TEST_F(Pacing, RefusedAuthorizationsAreLoggedWithUidAndReason) {
    const std::string id = *daemon_->beginPairing(kGreedy, daemon_->makeSessionIdentity());
    EXPECT_EQ(codeOf(daemon_->approvePairing(id, std::vector<std::uint8_t>(31), PeerIdentity{77, kGreedy})),
              AdminError::authorizationFailed);
    authorizer_->answer(Error{"org.freedesktop.PolicyKit1.Error.NotAuthorized", 1, "not\x1b[2J allowed"});
    EXPECT_EQ(codeOf(daemon_->unpairAll(kGrantedAuthorization, PeerIdentity{78, kGreedy})),
              AdminError::authorizationFailed);
    const auto lines = logLines();
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2],
              "uid 501's approval was not authorized (pid 77): the authorization is 31 bytes, not 32");
    EXPECT_EQ(lines.back(), "uid 501's unpair-all was not authorized (pid 78): not\\x1b[2J allowed")
        << "the authority's words reach the log escaped";
}

// The authority names the peer by pid: once the peer has exited, its pid may
// be another process's, whose rights must not be lent to it.
TEST_F(Pacing, ExitedPeerIsNotAuthorisedUnderItsPid) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) ::_exit(0);
    UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    ASSERT_TRUE(pidfd) << "pidfd_open: " << std::strerror(errno);
    ::waitpid(child, nullptr, 0);
    PeerIdentity gone{child, kGreedy, 1, std::make_shared<const ProcessHandle>(std::move(pidfd))};
    const std::string id = *daemon_->beginPairing(kGreedy, daemon_->makeSessionIdentity());
    EXPECT_EQ(codeOf(daemon_->approvePairing(id, kGrantedAuthorization, gone)), AdminError::authorizationFailed);
    EXPECT_TRUE(authorizer_->calls().empty());

    UniqueFd self(static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0)));
    PeerIdentity here{::getpid(), kGreedy, 1, std::make_shared<const ProcessHandle>(std::move(self))};
    EXPECT_TRUE(here.process->alive());
    EXPECT_TRUE(daemon_->approvePairing(id, kGrantedAuthorization, here));
}

// The peer may also go while the authority decides: the answer was about a
// process that no longer holds that pid, so it counts for nothing.
TEST_F(Pacing, PeerThatExitsWhileTheAuthorityDecidesIsRefused) {
    int release[2];
    ASSERT_EQ(::pipe(release), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(release[1]);
        char byte;
        (void)!::read(release[0], &byte, 1);
        ::_exit(0);
    }
    ::close(release[0]);
    UniqueFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    ASSERT_TRUE(pidfd);
    const PeerIdentity peer{child, kGreedy, 1, std::make_shared<const ProcessHandle>(std::move(pidfd))};
    authorizer_->onCheck([&] {
        ::close(release[1]);  // the peer exits and is reaped before the answer comes back
        ::waitpid(child, nullptr, 0);
    });
    const std::string id = *daemon_->beginPairing(kGreedy, daemon_->makeSessionIdentity());
    EXPECT_EQ(codeOf(daemon_->approvePairing(id, kGrantedAuthorization, peer)), AdminError::authorizationFailed);
    EXPECT_EQ(authorizer_->calls().size(), 1u) << "the authority was asked, and said yes";
    EXPECT_EQ(daemon_->pendingPairings(kGreedy).size(), 1u) << "the request waits for a live approver";
    EXPECT_TRUE(logLines().back().ends_with("the process ended while the authority decided")) << logLines().back();
}

}  // namespace
}  // namespace netvane
