// In-memory stand-ins for the configuration seams, safe to share between
// threads: preferences that journal every request, a dynamic store whose
// values and notifications the test sets, and an interface list.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "netcore/sysconfig/dynamic_store.h"
#include "netcore/sysconfig/network_interface_list.h"
#include "netcore/sysconfig/network_preferences.h"

namespace netvane::testing {

inline Error fakeFailure(const std::string& what) { return Error{"netvane.test", 1, what + " refused"}; }

// Records every step a session takes, in order, as short lines such as
// "open com.example", "lock", "set ABC 1", "unlock", "close".
class FakeNetworkPreferences : public NetworkPreferences {
public:
    struct Service {
        bool enabled = true;
        std::optional<plist::Value> interface;  // the service's "Interface" entity
    };
    struct Failures {
        bool open = false, lock = false, lookup = false, set = false, commit = false, apply = false;
    };

    void addService(const std::string& id, Service service) {
        const std::lock_guard guard(mutex_);
        services_[id] = std::move(service);
    }
    // What currentSetServices and currentSetServiceOrder answer.
    void setCurrentSet(std::optional<std::vector<PreferencesService>> services,
                       std::optional<std::vector<std::string>> order) {
        const std::lock_guard guard(mutex_);
        currentSet_ = std::move(services);
        order_ = std::move(order);
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

    Result<std::unique_ptr<NetworkPreferencesSession>> open(const std::string& clientName) override {
        note("open " + clientName);
        const std::lock_guard guard(mutex_);
        if (failures_.open) return fakeFailure("open");
        return std::unique_ptr<NetworkPreferencesSession>(std::make_unique<Session>(*this));
    }

private:
    class Session : public NetworkPreferencesSession {
    public:
        explicit Session(FakeNetworkPreferences& owner) : owner_(owner) {}
        ~Session() override { owner_.note("close"); }

        Status lock() override {
            owner_.note("lock");
            std::unique_lock guard(owner_.mutex_);
            if (owner_.failures_.lock) return fakeFailure("lock");
            // Waits like the system's lock does, so concurrent changes serialise;
            // a lock never released fails the caller instead of hanging the test.
            if (!owner_.released_.wait_for(guard, std::chrono::seconds(5), [this] { return !owner_.locked_; })) {
                return fakeFailure("lock wait");
            }
            owner_.locked_ = true;
            return {};
        }
        void unlock() override {
            owner_.note("unlock");
            const std::lock_guard guard(owner_.mutex_);
            owner_.locked_ = false;
            owner_.released_.notify_one();
        }
        Result<bool> hasService(const std::string& id) override {
            owner_.note("hasService " + id);
            const std::lock_guard guard(owner_.mutex_);
            if (owner_.failures_.lookup) return fakeFailure("lookup");
            return owner_.services_.count(id) == 1;
        }
        std::optional<plist::Value> pathValue(const std::string& path) override {
            owner_.note("pathValue " + path);
            const std::lock_guard guard(owner_.mutex_);
            for (const auto& [id, service] : owner_.services_) {
                if (path == interfaceEntityPath(id)) return service.interface;
            }
            return std::nullopt;
        }
        std::optional<std::vector<PreferencesService>> currentSetServices() override {
            owner_.note("services");
            const std::lock_guard guard(owner_.mutex_);
            return owner_.currentSet_;
        }
        std::optional<std::vector<std::string>> currentSetServiceOrder() override {
            owner_.note("order");
            const std::lock_guard guard(owner_.mutex_);
            return owner_.order_;
        }
        Status setServiceEnabled(const std::string& id, bool enabled) override {
            owner_.note("set " + id + (enabled ? " 1" : " 0"));
            const std::lock_guard guard(owner_.mutex_);
            if (owner_.failures_.set) return fakeFailure("set");
            owner_.services_.at(id).enabled = enabled;
            return {};
        }
        Status commit() override {
            owner_.note("commit");
            const std::lock_guard guard(owner_.mutex_);
            if (owner_.failures_.commit) return fakeFailure("commit");
            return {};
        }
        Status apply() override {
            owner_.note("apply");
            const std::lock_guard guard(owner_.mutex_);
            if (owner_.failures_.apply) return fakeFailure("apply");
            return {};
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
    std::optional<std::vector<PreferencesService>> currentSet_;
    std::optional<std::vector<std::string>> order_;
    Failures failures_;
    bool locked_ = false;
    std::vector<std::string> journal_;
};

// Stores made by one factory share its values; every attached store
// delivers what the test emits.
class FakeDynamicStores : public DynamicStoreFactory {
public:
    // Values by key; a key mapped to a non-dictionary is kept as it is.
    void set(const std::string& key, plist::Value value) {
        const std::lock_guard guard(shared_->mutex);
        shared_->values[key] = std::move(value);
    }
    // What copyMultiple answers instead of the matching values.
    void answerCopyMultipleWith(std::optional<plist::Value> answer) {
        const std::lock_guard guard(shared_->mutex);
        shared_->multipleOverride = true;
        shared_->multipleAnswer = std::move(answer);
    }
    void failCreate() {
        const std::lock_guard guard(shared_->mutex);
        shared_->failCreate = true;
    }

    // Hands a batch to every store currently attached to a queue.
    void emit(const plist::Value& changedKeys) {
        std::vector<std::shared_ptr<NotificationDelivery>> deliveries;
        {
            const std::lock_guard guard(shared_->mutex);
            deliveries = shared_->deliveries;
        }
        for (const auto& delivery : deliveries) delivery->post(changedKeys);
    }

    std::vector<std::string> names() const {
        const std::lock_guard guard(shared_->mutex);
        return shared_->names;
    }
    // Registered keys and patterns, in the order of the last registration.
    std::pair<std::vector<std::string>, std::vector<std::string>> notificationKeys() const {
        const std::lock_guard guard(shared_->mutex);
        return shared_->notificationKeys;
    }
    std::vector<std::string> copiedKeys() const {
        const std::lock_guard guard(shared_->mutex);
        return shared_->copied;
    }
    int liveStores() const {
        const std::lock_guard guard(shared_->mutex);
        return shared_->live;
    }

    std::unique_ptr<DynamicStore> create(const std::string& name, DynamicStore::Callback callback) override {
        {
            const std::lock_guard guard(shared_->mutex);
            shared_->names.push_back(name);
            if (shared_->failCreate) return nullptr;
        }
        return std::make_unique<Store>(shared_, std::move(callback));
    }

private:
    struct Shared {
        mutable std::mutex mutex;
        bool failCreate = false;
        std::map<std::string, plist::Value> values;
        bool multipleOverride = false;
        std::optional<plist::Value> multipleAnswer;
        std::vector<std::shared_ptr<NotificationDelivery>> deliveries;
        std::vector<std::string> names;
        std::pair<std::vector<std::string>, std::vector<std::string>> notificationKeys;
        std::vector<std::string> copied;
        int live = 0;
    };

    class Store : public DynamicStore {
    public:
        Store(std::shared_ptr<Shared> shared, Callback callback)
            : shared_(std::move(shared)), delivery_(std::make_shared<NotificationDelivery>(std::move(callback))) {
            const std::lock_guard guard(shared_->mutex);
            ++shared_->live;
            shared_->deliveries.push_back(delivery_);
        }
        ~Store() override {
            delivery_->detach();
            const std::lock_guard guard(shared_->mutex);
            --shared_->live;
            std::erase(shared_->deliveries, delivery_);
        }

        std::optional<plist::Value> copyValue(const std::string& key) override {
            const std::lock_guard guard(shared_->mutex);
            shared_->copied.push_back(key);
            const auto it = shared_->values.find(key);
            if (it == shared_->values.end()) return std::nullopt;
            return it->second;
        }
        std::optional<plist::Value> copyMultiple(const std::vector<std::string>& keys,
                                                 const std::vector<std::string>& patterns) override {
            const std::lock_guard guard(shared_->mutex);
            if (shared_->multipleOverride) return shared_->multipleAnswer;
            const KeyMatcher matcher(keys, patterns);
            plist::Dictionary found;
            for (const auto& [key, value] : shared_->values) {
                if (matcher.matches(key)) found.append(key, value);
            }
            return plist::Value(std::move(found));
        }
        bool setNotificationKeys(const std::vector<std::string>& keys,
                                 const std::vector<std::string>& patterns) override {
            const std::lock_guard guard(shared_->mutex);
            shared_->notificationKeys = {keys, patterns};
            return true;
        }
        bool setDispatchQueue(std::shared_ptr<SerialQueue> queue) override {
            if (queue) {
                delivery_->attach(std::move(queue));
            } else {
                delivery_->detach();
            }
            return true;
        }

    private:
        std::shared_ptr<Shared> shared_;
        std::shared_ptr<NotificationDelivery> delivery_;
    };

    std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
};

class FakeInterfaceList : public NetworkInterfaceList {
public:
    explicit FakeInterfaceList(std::optional<std::vector<NetworkInterface>> interfaces = {})
        : interfaces_(std::move(interfaces)) {}
    std::optional<std::vector<NetworkInterface>> copyAll() override { return interfaces_; }

private:
    std::optional<std::vector<NetworkInterface>> interfaces_;
};

}  // namespace netvane::testing
