#include "netcore/sysconfig/network_change_watcher.h"

#include "netcore/sysconfig/system_configuration_reader.h"

namespace netvane {
namespace {

// Anything but an array of strings counts as no keys at all.
std::vector<std::string> changedKeysFrom(const plist::Value* value) {
    if (!value || !value->array()) return {};
    std::vector<std::string> keys;
    keys.reserve(value->array()->size());
    for (const plist::Value& element : *value->array()) {
        if (!element.string()) return {};
        keys.push_back(*element.string());
    }
    return keys;
}

}  // namespace

const std::vector<std::string>& NetworkChangeWatcher::watchedKeys() {
    static const std::vector<std::string> keys{"State:/Network/Interface"};
    return keys;
}

const std::vector<std::string>& NetworkChangeWatcher::watchedPatterns() {
    static const std::vector<std::string> patterns{"State:/Network/Interface/.*", "State:/Network/Global/IPv[46]",
                                                   "State:/Network/Service/.*", "Setup:/Network/Service/.*"};
    return patterns;
}

NetworkChangeWatcher::NetworkChangeWatcher(std::shared_ptr<SerialQueue> queue, Handler handler)
    : NetworkChangeWatcher(std::move(queue), std::move(handler), systemDynamicStores()) {}

NetworkChangeWatcher::NetworkChangeWatcher(std::shared_ptr<SerialQueue> queue, Handler handler,
                                           DynamicStoreFactory& stores)
    : queue_(std::move(queue)), box_(std::make_unique<Box>(Box{std::move(handler)})) {
    // The store holds only the box's address; the watcher owns the box and
    // detaches the store before letting it go.
    Box* box = box_.get();
    auto store = stores.create(SystemConfigurationReader::kClientName, [box](const plist::Value* changedKeys) {
        if (box == nullptr) return;
        box->handler(changedKeysFrom(changedKeys));
    });
    if (!store || !queue_) return;
    (void)store->setNotificationKeys(watchedKeys(), watchedPatterns());
    (void)store->setDispatchQueue(queue_);
    store_ = std::move(store);
}

NetworkChangeWatcher::~NetworkChangeWatcher() {
    if (store_) {
        (void)store_->setDispatchQueue(nullptr);
        store_.reset();
    }
    // Released from inside its own handler, the box is still in use until
    // the handler returns: the queue lets it go after that.
    if (queue_ && queue_->isCurrent()) queue_->async([box = std::shared_ptr<Box>(std::move(box_))] {});
}

}  // namespace netvane
