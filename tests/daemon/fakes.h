// In-memory stand-ins for the daemon's seams, safe to share between threads.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "daemon/authorizer.h"
#include "daemon/network_preferences.h"
#include "daemon/tunnel_owner_source.h"

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
        const std::lock_guard guard(mutex_);
        calls_.push_back(Call{peer, {externalForm.begin(), externalForm.end()}, std::string(right)});
        return answer_;
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
    std::vector<Call> calls_;
};

// Records every step a session takes, in order, as short lines such as
// "open com.example", "lock", "set ABC 1", "unlock", "close".
class FakeNetworkPreferences : public NetworkPreferences {
public:
    struct Service {
        bool enabled = true;
        std::optional<plist::Value> interface;  // the service's "Interface" entity
    };
    struct Failures {
        bool open = false, lock = false, set = false, commit = false, apply = false;
    };

    void addService(const std::string& id, Service service) {
        const std::lock_guard guard(mutex_);
        services_[id] = std::move(service);
    }
    void fail(Failures failures) {
        const std::lock_guard guard(mutex_);
        failures_ = failures;
    }
    std::optional<bool> enabled(const std::string& id) const {
        const std::lock_guard guard(mutex_);
        const auto it = services_.find(id);
        if (it == services_.end()) return std::nullopt;
        return it->second.enabled;
    }
    std::vector<std::string> journal() const {
        const std::lock_guard guard(mutex_);
        return journal_;
    }
    bool locked() const {
        const std::lock_guard guard(mutex_);
        return locked_;
    }

    std::unique_ptr<NetworkPreferencesSession> open(const std::string& clientName) override {
        note("open " + clientName);
        const std::lock_guard guard(mutex_);
        if (failures_.open) return nullptr;
        return std::make_unique<Session>(*this);
    }

private:
    class Session : public NetworkPreferencesSession {
    public:
        explicit Session(FakeNetworkPreferences& owner) : owner_(owner) {}
        ~Session() override { owner_.note("close"); }

        bool lock() override {
            owner_.note("lock");
            std::unique_lock guard(owner_.mutex_);
            if (owner_.failures_.lock) return false;
            // Waits like the system's lock does, so concurrent changes serialise;
            // a lock never released fails the caller instead of hanging the test.
            if (!owner_.released_.wait_for(guard, std::chrono::seconds(5), [this] { return !owner_.locked_; })) {
                return false;
            }
            owner_.locked_ = true;
            return true;
        }
        void unlock() override {
            owner_.note("unlock");
            const std::lock_guard guard(owner_.mutex_);
            owner_.locked_ = false;
            owner_.released_.notify_one();
        }
        bool hasService(const std::string& id) override {
            owner_.note("hasService " + id);
            const std::lock_guard guard(owner_.mutex_);
            return owner_.services_.count(id) == 1;
        }
        std::optional<plist::Value> pathValue(const std::string& path) override {
            owner_.note("pathValue " + path);
            const std::lock_guard guard(owner_.mutex_);
            for (const auto& [id, service] : owner_.services_) {
                if (path == "/NetworkServices/" + id + "/Interface") return service.interface;
            }
            return std::nullopt;
        }
        bool setServiceEnabled(const std::string& id, bool enabled) override {
            owner_.note("set " + id + (enabled ? " 1" : " 0"));
            const std::lock_guard guard(owner_.mutex_);
            if (owner_.failures_.set) return false;
            owner_.services_.at(id).enabled = enabled;
            return true;
        }
        bool commit() override {
            owner_.note("commit");
            const std::lock_guard guard(owner_.mutex_);
            return !owner_.failures_.commit;
        }
        bool apply() override {
            owner_.note("apply");
            const std::lock_guard guard(owner_.mutex_);
            return !owner_.failures_.apply;
        }

    private:
        FakeNetworkPreferences& owner_;
    };

    void note(std::string step) {
        const std::lock_guard guard(mutex_);
        journal_.push_back(std::move(step));
    }

    mutable std::mutex mutex_;
    std::condition_variable released_;
    std::map<std::string, Service> services_;
    Failures failures_;
    bool locked_ = false;
    std::vector<std::string> journal_;
};

class FakeTunnelOwnerSource : public TunnelOwnerSource {
public:
    explicit FakeTunnelOwnerSource(std::vector<TunnelOwnerEntry> entries) : entries_(std::move(entries)) {}
    std::vector<TunnelOwnerEntry> scan() override { return entries_; }

private:
    const std::vector<TunnelOwnerEntry> entries_;
};

}  // namespace netvane::testing
