#include "netcore/sysconfig/linux/dynamic_store.h"

#include "support/mutex.h"

#include "netcore/sysconfig/linux/bus.h"
#include "netcore/sysconfig/linux/store_view.h"

namespace netvane {
namespace {

constexpr const char* kNetworkManagerSignals = "type='signal',sender='org.freedesktop.NetworkManager'";
constexpr const char* kOwnerChanges =
    "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',member='NameOwnerChanged',"
    "arg0='org.freedesktop.NetworkManager'";

// NetworkManager's state for copies: loaded when first needed, loaded again
// after any signal of NetworkManager's (or its coming and going) said it
// changed. A failed load counts until then too, so that a hung
// NetworkManager costs one timeout, not one per copy.
class NetworkManagerView {
public:
    const nm::State* state() {
        if (!bus_ && !connect()) return nullptr;
        int r = 0;
        while ((r = bus::sd().sd_bus_process(bus_.get(), nullptr)) > 0) {
        }
        if (r < 0) {
            disconnect();
            if (!connect()) return nullptr;
        }
        if (stale_) {
            stale_ = false;
            auto loaded = nm::load(bus_.get());
            if (loaded) {
                state_ = std::move(*loaded);
            } else {
                state_.reset();
            }
        }
        return state_ ? &*state_ : nullptr;
    }

private:
    static int markStale(sd_bus_message*, void* context, sd_bus_error*) {
        static_cast<NetworkManagerView*>(context)->stale_ = true;
        return 0;
    }

    bool connect() {
        auto opened = bus::openSystemBus();
        if (!opened) return false;
        // Asked for before the first load, and handled by the bus before it.
        for (const char* match : {kNetworkManagerSignals, kOwnerChanges}) {
            sd_bus_slot* slot = nullptr;
            if (bus::sd().sd_bus_add_match_async(opened->get(), &slot, match, &markStale, nullptr, this) < 0) {
                slots_.clear();
                return false;
            }
            slots_.emplace_back(slot);
        }
        bus_ = std::move(*opened);
        stale_ = true;
        return true;
    }

    void disconnect() {
        slots_.clear();
        bus_.reset();
        state_.reset();
    }

    bus::Bus bus_;
    std::vector<bus::Slot> slots_;
    bool stale_ = true;
    std::optional<nm::State> state_;
};

// The keys and patterns to be notified about, shared with the monitor's thread.
class NotificationFilter {
public:
    void set(KeyMatcher matcher) {
        MutexLock lock(mutex_);
        matcher_ = std::make_shared<const KeyMatcher>(std::move(matcher));
    }
    plist::Array pick(const KeySet& keys) const {
        std::shared_ptr<const KeyMatcher> matcher;
        {
            MutexLock lock(mutex_);
            matcher = matcher_;
        }
        plist::Array picked;
        for (const std::string& key : keys) {
            if (matcher->matches(key)) picked.push_back(key);
        }
        return picked;
    }

private:
    mutable Mutex mutex_;
    std::shared_ptr<const KeyMatcher> matcher_ NV_GUARDED_BY(mutex_) = std::make_shared<const KeyMatcher>();
};

class LinuxDynamicStore final : public DynamicStore {
public:
    LinuxDynamicStore(Callback callback, ChangeMonitor::Options options)
        : options_(options), delivery_(std::make_shared<NotificationDelivery>(std::move(callback))) {}

    ~LinuxDynamicStore() override { (void)setDispatchQueue(nullptr); }

    std::optional<plist::Value> copyValue(const std::string& key) override {
        plist::Dictionary found = collect(KeyMatcher({key}, {}));
        const plist::Value* value = found.find(key);
        if (!value) return std::nullopt;
        return *value;
    }

    std::optional<plist::Value> copyMultiple(const std::vector<std::string>& keys,
                                             const std::vector<std::string>& patterns) override {
        return plist::Value(collect(KeyMatcher(keys, patterns)));
    }

    bool setNotificationKeys(const std::vector<std::string>& keys, const std::vector<std::string>& patterns) override {
        filter_->set(KeyMatcher(keys, patterns));
        return true;
    }

    bool setDispatchQueue(std::shared_ptr<SerialQueue> queue) override {
        if (!queue) {
            delivery_->detach();
            monitor_.reset();
            return true;
        }
        delivery_->attach(std::move(queue));
        if (monitor_) return true;
        auto started = ChangeMonitor::start(
            [delivery = delivery_, filter = filter_](KeySet keys) {
                plist::Array picked = filter->pick(keys);
                if (!picked.empty()) delivery->post(plist::Value(std::move(picked)));
            },
            options_);
        if (!started) {
            delivery_->detach();
            return false;
        }
        monitor_ = std::move(*started);
        return true;
    }

private:
    plist::Dictionary collect(const KeyMatcher& wanted) {
        plist::Dictionary found;
        if (storeview::wantsGlobal(wanted) || storeview::wantsInterfaces(wanted)) {
            if (!routing_) routing_ = kernel::openRoutingSocket();
            storeview::collectGlobal(routing_.get(), wanted, found);
            if (storeview::wantsInterfaces(wanted)) storeview::collectInterfaces(routing_.get(), wanted, found);
        }
        if (storeview::wantsServices(wanted)) {
            if (const nm::State* state = manager_.state()) storeview::collectServices(*state, wanted, found);
        }
        return found;
    }

    const ChangeMonitor::Options options_;
    const std::shared_ptr<NotificationDelivery> delivery_;
    const std::shared_ptr<NotificationFilter> filter_ = std::make_shared<NotificationFilter>();
    std::unique_ptr<ChangeMonitor> monitor_;
    NetlinkSocket routing_;
    NetworkManagerView manager_;
};

class LinuxDynamicStores final : public DynamicStoreFactory {
public:
    explicit LinuxDynamicStores(ChangeMonitor::Options options) : options_(options) {}
    std::unique_ptr<DynamicStore> create(const std::string&, DynamicStore::Callback callback) override {
        return std::make_unique<LinuxDynamicStore>(std::move(callback), options_);
    }

private:
    const ChangeMonitor::Options options_;
};

}  // namespace

std::unique_ptr<DynamicStoreFactory> makeLinuxDynamicStores(ChangeMonitor::Options options) {
    return std::make_unique<LinuxDynamicStores>(options);
}

DynamicStoreFactory& systemDynamicStores() {
    static LinuxDynamicStores stores{ChangeMonitor::Options{}};
    return stores;
}

}  // namespace netvane
