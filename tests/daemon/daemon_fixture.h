// A daemon over fakes and a private state directory, with helpers that record
// replies and check that the daemon's lock is free while a reply runs.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "daemon/admin_daemon.h"
#include "tests/daemon/fakes.h"

namespace netvane::testing {

// What one PairingReply received; shared by copies of the reply.
struct PairingOutcome {
    std::mutex mutex;
    int calls = 0;
    std::optional<std::string> token;
    std::optional<Error> error;

    int count() {
        const std::lock_guard guard(mutex);
        return calls;
    }
};

inline PairingReply recordInto(const std::shared_ptr<PairingOutcome>& outcome) {
    return [outcome](std::optional<std::string> token, std::optional<Error> error) {
        const std::lock_guard guard(outcome->mutex);
        ++outcome->calls;
        outcome->token = std::move(token);
        outcome->error = std::move(error);
    };
}

inline const std::vector<std::uint8_t> kGrantedAuthorization(32, 0xA5);

class DaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/netvane-daemon-XXXXXX";
        root_ = mkdtemp(pattern);
        dir_ = root_ + "/state";
        daemon_ = makeDaemon(PairingStore::open(dir_).value());
    }
    void TearDown() override {
        probes_.clear();  // joins any probe still waiting for the lock
        std::filesystem::remove_all(root_);
    }

    std::shared_ptr<AdminDaemon> makeDaemon(PairingStore store) {
        AdminDaemon::Backends backends;
        backends.authorizer = authorizer_;
        backends.preferences = preferences_;
        backends.tunnelOwners = tunnels_;
        backends.log = [this](std::string_view line) {
            const std::lock_guard guard(logMutex_);
            log_.emplace_back(line);
        };
        backends.clock = [this] { return now_; };
        // A paced call's wait passes at once, and the clock with it.
        backends.waitUntil = [this](std::chrono::steady_clock::time_point until) {
            const std::lock_guard guard(waitMutex_);
            waits_.push_back(until - now_);
            now_ = std::max(now_, until);
        };
        return std::make_shared<AdminDaemon>(std::move(store), "1.2.3", std::move(backends), limits_);
    }

    // How long each paced call waited, in order.
    std::vector<std::chrono::steady_clock::duration> waits() {
        const std::lock_guard guard(waitMutex_);
        return waits_;
    }

    std::vector<std::string> logLines() {
        const std::lock_guard guard(logMutex_);
        return log_;
    }

    // True when another thread can take the daemon's lock right now. Meant to
    // be called from inside a reply: were the lock held, the probe would wait,
    // so it is kept (and joined) only after the reply has returned.
    bool lockIsFree(AdminDaemon& daemon) {
        probes_.push_back(std::async(std::launch::async, [&daemon] { daemon.pendingPairings(0); }));
        return probes_.back().wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    }

    // begin + await from `session`, approved by a peer of the same uid.
    std::string pairThroughWorkflow(std::uint32_t uid, SessionIdentity session) {
        auto outcome = std::make_shared<PairingOutcome>();
        const std::string id = *daemon_->beginPairing(uid, session);
        daemon_->awaitPairing(id, session, recordInto(outcome));
        EXPECT_TRUE(daemon_->approvePairing(id, kGrantedAuthorization, PeerIdentity{4242, uid}).ok());
        EXPECT_EQ(outcome->count(), 1);
        return outcome->token.value_or("");
    }

    std::string root_, dir_;
    std::shared_ptr<FakeAuthorizer> authorizer_ = std::make_shared<FakeAuthorizer>();
    std::shared_ptr<FakeNetworkPreferences> preferences_ = std::make_shared<FakeNetworkPreferences>();
    std::shared_ptr<FakeTunnelOwnerSource> tunnels_ = std::make_shared<FakeTunnelOwnerSource>(
        std::vector<TunnelOwnerEntry>{});
    std::shared_ptr<AdminDaemon> daemon_;
    // The daemon's clock for its rate limits: time passes only when a test says so.
    std::chrono::steady_clock::time_point now_{};
    AdminDaemon::Limits limits_ = AdminDaemon::defaultLimits();

private:
    std::mutex waitMutex_;
    std::vector<std::chrono::steady_clock::duration> waits_;
    std::mutex logMutex_;
    std::vector<std::string> log_;
    std::vector<std::future<void>> probes_;
};

inline std::optional<AdminError> codeOf(const std::optional<Error>& error) {
    return error ? asAdminError(*error) : std::nullopt;
}
inline std::optional<AdminError> codeOf(const Status& status) {
    return status ? std::nullopt : asAdminError(status.error());
}

}  // namespace netvane::testing
