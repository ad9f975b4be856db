// The dynamic store over the system's own store sessions.
//
// The system calls back on a private serial dispatch queue of the session's;
// from there each batch goes through NotificationDelivery to the owner's
// queue, which keeps the detach rule of dynamic_store.h. The system's
// callback context holds only the delivery's address: detaching first stops
// the system's queue, then waits for a callback it may still be running, and
// only then can the delivery go.
#include <dispatch/dispatch.h>

#include "netcore/sysconfig/darwin/system_configuration.h"
#include "netcore/sysconfig/dynamic_store.h"
#include "support/darwin/foundation_values.h"

namespace netvane {
namespace {

NSArray* toStrings(const std::vector<std::string>& texts) {
    NSMutableArray* out = [NSMutableArray arrayWithCapacity:texts.size()];
    for (const std::string& text : texts) [out addObject:toNSString(text)];
    return out;
}

// The store's keys are strings; anything else in a batch is kept as a
// non-string, so that the owner sees a batch that is not a list of keys.
plist::Value changedKeysValue(CFArrayRef changedKeys) {
    id keys = (__bridge id)changedKeys;
    if (![keys isKindOfClass:[NSArray class]]) return plist::Value(plist::Dictionary{});
    plist::Array batch;
    batch.reserve([(NSArray*)keys count]);
    for (id key in (NSArray*)keys) {
        auto text = sc::string((__bridge CFTypeRef)key);
        batch.push_back(text ? plist::Value(std::move(*text)) : plist::Value(false));
    }
    return plist::Value(std::move(batch));
}

void changed(SCDynamicStoreRef, CFArrayRef changedKeys, void* info) {
    if (info == nullptr) return;
    @autoreleasepool {
        static_cast<NotificationDelivery*>(info)->post(changedKeysValue(changedKeys));
    }
}

class SystemDynamicStore final : public DynamicStore {
public:
    SystemDynamicStore(id store, std::shared_ptr<NotificationDelivery> delivery)
        : delivery_(std::move(delivery)), store_(store) {}

    ~SystemDynamicStore() override { (void)setDispatchQueue(nullptr); }

    std::optional<plist::Value> copyValue(const std::string& key) override {
        @autoreleasepool {
            id value = CFBridgingRelease(SCDynamicStoreCopyValue(handle(), (__bridge CFStringRef)toNSString(key)));
            return fromFoundation(value);
        }
    }

    std::optional<plist::Value> copyMultiple(const std::vector<std::string>& keys,
                                             const std::vector<std::string>& patterns) override {
        @autoreleasepool {
            // An empty list is passed as none, as the store expects when a
            // caller asks for patterns only (or keys only).
            NSArray* keyList = keys.empty() ? nil : toStrings(keys);
            NSArray* patternList = patterns.empty() ? nil : toStrings(patterns);
            id values = CFBridgingRelease(SCDynamicStoreCopyMultiple(handle(), (__bridge CFArrayRef)keyList,
                                                                     (__bridge CFArrayRef)patternList));
            if (![values isKindOfClass:[NSDictionary class]]) return std::nullopt;
            return fromFoundation(values);
        }
    }

    bool setNotificationKeys(const std::vector<std::string>& keys, const std::vector<std::string>& patterns) override {
        @autoreleasepool {
            return SCDynamicStoreSetNotificationKeys(handle(), (__bridge CFArrayRef)toStrings(keys),
                                                     (__bridge CFArrayRef)toStrings(patterns));
        }
    }

    bool setDispatchQueue(std::shared_ptr<SerialQueue> queue) override {
        if (!delivery_) return false;  // made without a callback: nothing to deliver to
        if (!queue) {
            if (relay_ != nil) {
                (void)SCDynamicStoreSetDispatchQueue(handle(), nullptr);
                // A callback the system had already started may still be
                // posting; once this returns, none is.
                dispatch_sync(relay_, ^{
                });
                relay_ = nil;
            }
            delivery_->detach();
            return true;
        }
        delivery_->attach(std::move(queue));
        if (relay_ != nil) return true;  // already delivering; only the owner's queue changed
        dispatch_queue_t relay = dispatch_queue_create("Netvane.dynamic-store", DISPATCH_QUEUE_SERIAL);
        if (!SCDynamicStoreSetDispatchQueue(handle(), relay)) {
            delivery_->detach();
            return false;
        }
        relay_ = relay;
        return true;
    }

private:
    SCDynamicStoreRef handle() const { return (__bridge SCDynamicStoreRef)store_; }

    // Declared first, so released last: the session's context points at it.
    const std::shared_ptr<NotificationDelivery> delivery_;  // null: no callback
    id store_;
    dispatch_queue_t relay_ = nil;  // the system's queue while attached
};

class SystemDynamicStores final : public DynamicStoreFactory {
public:
    std::unique_ptr<DynamicStore> create(const std::string& name, DynamicStore::Callback callback) override {
        @autoreleasepool {
            std::shared_ptr<NotificationDelivery> delivery;
            SCDynamicStoreContext context{0, nullptr, nullptr, nullptr, nullptr};
            if (callback) {
                delivery = std::make_shared<NotificationDelivery>(std::move(callback));
                context.info = delivery.get();
            }
            id store = CFBridgingRelease(SCDynamicStoreCreate(kCFAllocatorDefault,
                                                              (__bridge CFStringRef)toNSString(name),
                                                              delivery ? &changed : nullptr, delivery ? &context : nullptr));
            if (store == nil) return nullptr;
            return std::make_unique<SystemDynamicStore>(store, std::move(delivery));
        }
    }
};

}  // namespace

DynamicStoreFactory& systemDynamicStores() {
    static SystemDynamicStores stores;
    return stores;
}

}  // namespace netvane
