// In-memory stand-ins for the daemon's seams, safe to share between threads;
// the network preferences' fake is the library's.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "daemon/authorizer.h"
#include "daemon/tunnel_owner_source.h"
#include "tests/netcore/sysconfig/fakes.h"

namespace netvane::testing {

class FakeAuthorizer : public Authorizer {
public:
    struct Call {
        PeerIdentity peer;
        std::vector<std::uint8_t> externalForm;
        std::string right;
    };

    Status checkRight(const PeerIdentity& peer, std::span<const std::uint8_t> externalForm,
                      std::string_view right) override {
        std::function<void()> hook;
        Status answer;
        {
            const std::lock_guard guard(mutex_);
            calls_.push_back(Call{peer, {externalForm.begin(), externalForm.end()}, std::string(right)});
            hook = onCheck_;
            answer = answer_;
        }
        if (hook) hook();
        return answer;
    }

    // Runs while the authority "decides", before it answers.
    void onCheck(std::function<void()> hook) {
        const std::lock_guard guard(mutex_);
        onCheck_ = std::move(hook);
    }

    void answer(Status status) {
        const std::lock_guard guard(mutex_);
        answer_ = std::move(status);
    }
    std::vector<Call> calls() const {
        const std::lock_guard guard(mutex_);
        return calls_;
    }

private:
    mutable std::mutex mutex_;
    Status answer_;
    std::function<void()> onCheck_;
    std::vector<Call> calls_;
};

class FakeTunnelOwnerSource : public TunnelOwnerSource {
public:
    explicit FakeTunnelOwnerSource(std::vector<TunnelOwnerEntry> entries) : entries_(std::move(entries)) {}
    std::vector<TunnelOwnerEntry> scan() override { return entries_; }

private:
    const std::vector<TunnelOwnerEntry> entries_;
};

}  // namespace netvane::testing
