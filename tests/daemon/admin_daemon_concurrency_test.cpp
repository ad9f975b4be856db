#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "admin_protocol/admin_error.h"
#include "daemon/sessions.h"
#include "tests/daemon/daemon_fixture.h"

namespace netvane {
namespace {

using namespace netvane::testing;

constexpr std::uint32_t kFirstUser = 500;
constexpr std::uint32_t kUsers = 3;
constexpr int kAppThreads = 6;
constexpr int kControlThreads = 2;
constexpr int kRequestsPerAppThread = 120;

// One await reply: how often it was called and with what.
struct Waiter {
    std::uint32_t uid = 0;
    std::atomic<int> calls{0};
    std::mutex mutex;
    std::optional<std::string> token;
    std::optional<Error> error;
};

using DaemonConcurrency = DaemonTest;

// App connections begin, await, check status and disconnect while control
// connections list, approve and deny whatever is pending, all at once. Every
// waiter must be answered at most once, only with a token that is really
// paired or with an expiry or denial, and every approval must reach the file.
TEST_F(DaemonConcurrency, ManyClientsHammerOneDaemon) {
    // Far more calls per user than the rate limits let through: the point
    // here is the lock, not the limits.
    const RateLimiter::Rate unlimited{1u << 30, std::chrono::milliseconds(1)};
    limits_ = AdminDaemon::Limits{unlimited, unlimited, unlimited, unlimited, {std::chrono::milliseconds(0), 0}};
    daemon_ = makeDaemon(PairingStore::open(dir_).value());
    preferences_->addService("ABC", {});
    std::mutex waitersMutex;
    std::vector<std::shared_ptr<Waiter>> waiters;
    std::atomic<int> approvals{0}, appThreadsLeft{kAppThreads};
    std::atomic<bool> unexpected{false};
    auto expectOneOf = [&](const Status& status, std::initializer_list<AdminError> allowed) {
        if (status) return;
        const auto code = asAdminError(status.error());
        if (!code || std::find(allowed.begin(), allowed.end(), *code) == allowed.end()) unexpected = true;
    };

    std::vector<std::thread> threads;
    for (int t = 0; t < kAppThreads; ++t) {
        threads.emplace_back([&, t] {
            const PeerIdentity peer{1000 + t, kFirstUser + static_cast<std::uint32_t>(t) % kUsers};
            auto session = std::make_unique<AppSession>(daemon_, peer);
            std::optional<std::string> lastToken;
            std::shared_ptr<Waiter> previous;
            for (int i = 0; i < kRequestsPerAppThread; ++i) {
                std::optional<std::string> id;
                session->beginPairing([&](std::optional<std::string> begun, std::optional<Error>) { id = begun; });
                auto waiter = std::make_shared<Waiter>();
                waiter->uid = peer.uid;
                {
                    const std::lock_guard guard(waitersMutex);
                    waiters.push_back(waiter);
                }
                session->awaitPairing(*id, [waiter](std::optional<std::string> token, std::optional<Error> error) {
                    ++waiter->calls;
                    const std::lock_guard guard(waiter->mutex);
                    waiter->token = std::move(token);
                    waiter->error = std::move(error);
                });
                // The previous request has usually been answered by now.
                if (previous) {
                    const std::lock_guard guard(previous->mutex);
                    if (previous->token) lastToken = previous->token;
                }
                previous = waiter;
                session->statusWithToken(lastToken, [](plist::Dictionary) {});
                // Scans run unshared here (no freshness), so callers meet one in flight.
                if (i % 3 == 0) session->tunnelOwners([](plist::Array) {});
                (void)session->hasPendingRequest();
                if (lastToken && i % 7 == 0) {
                    session->setServiceEnabled("ABC", i % 2 == 0, *lastToken,
                                               [&](std::optional<Error> error) { unexpected = unexpected || error; });
                }
                if (i % 10 == 9) {
                    session->ended();
                    session = std::make_unique<AppSession>(daemon_, peer);
                }
                std::this_thread::yield();
            }
            session->ended();
            previous.reset();
            --appThreadsLeft;
        });
    }
    for (int t = 0; t < kControlThreads; ++t) {
        threads.emplace_back([&, t] {
            std::minstd_rand random(t);
            while (appThreadsLeft > 0) {
                const std::uint32_t uid = kFirstUser + random() % kUsers;
                ControlSession control(daemon_, PeerIdentity{2000 + t, uid});
                plist::Array pending;
                control.pendingPairings([&](plist::Array list) { pending = std::move(list); });
                for (const plist::Value& entry : pending) {
                    const std::string id = *entry.find("id")->string();
                    switch (random() % 4) {
                    case 0:
                        control.denyPairing(id, [&](std::optional<Error> e) {
                            expectOneOf(e ? Status(*e) : Status(), {AdminError::unknownRequest});
                        });
                        break;
                    case 1: {
                        const PeerIdentity stranger{3000, uid + kUsers};
                        expectOneOf(daemon_->approvePairing(id, kGrantedAuthorization, stranger),
                                    {AdminError::wrongUser, AdminError::unknownRequest});
                        break;
                    }
                    default:
                        control.approvePairing(id, kGrantedAuthorization, [&](std::optional<Error> e) {
                            if (!e) ++approvals;
                            expectOneOf(e ? Status(*e) : Status(), {AdminError::unknownRequest});
                        });
                    }
                }
                control.statusWithReply([](plist::Dictionary) {});
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_FALSE(unexpected);
    EXPECT_GT(approvals, 0) << "the run never approved anything; it proves little";
    for (std::uint32_t uid = kFirstUser; uid < kFirstUser + kUsers; ++uid) {
        EXPECT_TRUE(daemon_->pendingPairings(uid).empty()) << "every session ended, so nothing is pending";
    }
    int delivered = 0;
    for (const auto& waiter : waiters) {
        ASSERT_LE(waiter->calls.load(), 1);
        if (waiter->token) {
            ++delivered;
            EXPECT_TRUE(daemon_->isPaired(*waiter->token, waiter->uid));
        } else if (waiter->calls == 1) {
            const auto code = codeOf(waiter->error);
            EXPECT_TRUE(code == AdminError::unknownRequest || code == AdminError::authorizationFailed);
        }
    }
    EXPECT_LE(delivered, approvals.load());
    EXPECT_FALSE(preferences_->locked());
    EXPECT_EQ(PairingStore::load(dir_).value().pairings.size(), static_cast<std::size_t>(approvals.load()));
}

}  // namespace
}  // namespace netvane
