// What one user's calls may cost the daemon: the work behind begin, unpair,
// approve, unpair-all and tunnel scans, and lines in the system log. The
// daemon's clock moves only when a test moves it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>

#include "admin_protocol/admin_error.h"
#include "daemon/rate_limiter.h"
#include "tests/daemon/daemon_fixture.h"

namespace netvane {
namespace {

using namespace std::chrono_literals;
using testing::codeOf;
using testing::DaemonTest;
using testing::kGrantedAuthorization;

constexpr std::uint32_t kGreedy = 501, kOther = 502;

TEST(RateLimiter, BurstThenOnePerRefillEachUserApart) {
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

using RateLimits = DaemonTest;

TEST_F(RateLimits, BeginsPastTheBurstAreRefusedForThatUserOnly) {
    const auto limits = AdminDaemon::defaultLimits();
    const SessionIdentity session = daemon_->makeSessionIdentity();
    for (std::uint32_t i = 0; i < limits.begin.burst; ++i) ASSERT_TRUE(daemon_->beginPairing(kGreedy, session)) << i;
    auto refused = daemon_->beginPairing(kGreedy, session);
    ASSERT_FALSE(refused);
    EXPECT_TRUE(isRefusal(refused.error()));
    EXPECT_EQ(daemon_->pendingPairings(kGreedy).size(), 1u) << "a refused begin supersedes nothing";
    EXPECT_TRUE(daemon_->beginPairing(kOther, session));
    now_ += limits.begin.refill;
    EXPECT_TRUE(daemon_->beginPairing(kGreedy, session));
}

TEST_F(RateLimits, UnpairFloodNeitherRewritesTheFileNorAnswers) {
    const std::string token = pairThroughWorkflow(kGreedy, daemon_->makeSessionIdentity());
    const std::string file = dir_ + "/pairings.plist";
    int answered = 0;
    for (int i = 0; i < 50; ++i) {
        const Status status = daemon_->unpair("not the token", kGreedy);
        if (status) {
            ++answered;
        } else {
            EXPECT_TRUE(isRefusal(status.error()));
        }
    }
    EXPECT_EQ(answered, static_cast<int>(AdminDaemon::defaultLimits().unpair.burst));
    struct stat before {};
    ASSERT_EQ(::stat(file.c_str(), &before), 0);
    EXPECT_TRUE(isRefusal(daemon_->unpair(token, kGreedy).error()));
    struct stat after {};
    ASSERT_EQ(::stat(file.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino) << "a refused unpair writes nothing";
    EXPECT_TRUE(daemon_->isPaired(token, kGreedy));
    EXPECT_TRUE(daemon_->unpair("not the token", kOther));
}

TEST_F(RateLimits, AuthorityQuestionsPastTheBurstFailWithoutAsking) {
    const SessionIdentity session = daemon_->makeSessionIdentity();
    const auto burst = AdminDaemon::defaultLimits().authority.burst;
    for (std::uint32_t i = 0; i < burst; ++i) {
        EXPECT_EQ(codeOf(daemon_->approvePairing("missing", kGrantedAuthorization, PeerIdentity{1, kGreedy})),
                  AdminError::unknownRequest);
    }
    const std::string id = *daemon_->beginPairing(kGreedy, session);
    EXPECT_EQ(codeOf(daemon_->approvePairing(id, kGrantedAuthorization, PeerIdentity{1, kGreedy})),
              AdminError::authorizationFailed);
    EXPECT_EQ(codeOf(daemon_->unpairAll(kGrantedAuthorization, PeerIdentity{1, kGreedy})),
              AdminError::authorizationFailed);
    EXPECT_EQ(authorizer_->calls().size(), burst) << "the authority was asked past the limit";
    EXPECT_EQ(daemon_->pendingPairings(kGreedy).size(), 1u) << "the refused approval left the request pending";
}

TEST_F(RateLimits, TunnelScansPastTheBurstAreRefused) {
    const auto burst = AdminDaemon::defaultLimits().tunnelScan.burst;
    for (std::uint32_t i = 0; i < burst; ++i) ASSERT_TRUE(daemon_->scanTunnelOwners(kGreedy)) << i;
    auto refused = daemon_->scanTunnelOwners(kGreedy);
    ASSERT_FALSE(refused);
    EXPECT_TRUE(isRefusal(refused.error()));
    EXPECT_TRUE(daemon_->scanTunnelOwners(kOther));
}

TEST_F(RateLimits, LogLinesAreSharedOutPerUserAndDropsAreCounted) {
    const RateLimiter::Rate unlimited{1u << 30, 1ms};
    limits_ = AdminDaemon::Limits{unlimited, unlimited, unlimited, unlimited, {3, 1000ms}};
    daemon_ = makeDaemon(PairingStore(dir_));
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

// The authority names the peer by pid: once the peer has exited, its pid may
// be another process's, whose rights must not be lent to it.
TEST_F(RateLimits, ExitedPeerIsNotAuthorisedUnderItsPid) {
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

}  // namespace
}  // namespace netvane
