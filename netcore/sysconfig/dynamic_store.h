// The dynamic-store seam: the system's live network state as a dictionary of
// keys ("State:/Network/Global/IPv4", "Setup:/Network/Service/<id>", ...)
// whose values are property-list dictionaries, and notifications naming the
// keys that changed.
//
// Each member is one request to the store: copy a value, copy every value
// of some keys and key patterns, choose the keys to be notified about, and
// attach delivery to a queue (or detach it). Implementations: a view of the
// kernel's and NetworkManager's state on Linux, the system's store on macOS,
// a fake in tests.
//
// Patterns are POSIX extended regular expressions matched against whole keys.
// Copies run on the caller's thread, one at a time per store. Notifications
// arrive on the attached queue as the changed keys of one batch (an array of
// strings, or whatever the platform handed over: callers check).
// IMPORTANT: once setDispatchQueue(nullptr) returns, the callback is never
// called again and no call of it is still running (unless the detach was
// made by the callback itself, which then finishes normally).
#pragma once

#include <regex.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/mutex.h"
#include "support/plist/value.h"
#include "support/serial_queue.h"

namespace netvane {

class DynamicStore {
public:
    // Null when the platform handed over no key list.
    using Callback = std::function<void(const plist::Value* changedKeys)>;

    virtual ~DynamicStore() = default;

    virtual std::optional<plist::Value> copyValue(const std::string& key) = 0;
    // Key -> value for every given key that exists and every existing key
    // that matches a pattern; nothing when the store could not answer.
    virtual std::optional<plist::Value> copyMultiple(const std::vector<std::string>& keys,
                                                     const std::vector<std::string>& patterns) = 0;
    // Replaces the keys and patterns to be notified about.
    virtual bool setNotificationKeys(const std::vector<std::string>& keys,
                                     const std::vector<std::string>& patterns) = 0;
    // Starts delivery on `queue`; null stops it.
    virtual bool setDispatchQueue(std::shared_ptr<SerialQueue> queue) = 0;
};

class DynamicStoreFactory {
public:
    virtual ~DynamicStoreFactory() = default;
    // A connection under the client's name that reports batches to
    // `callback` (which may be empty); null when none can be made.
    virtual std::unique_ptr<DynamicStore> create(const std::string& name, DynamicStore::Callback callback) = 0;
};

// This platform's store; shared and thread-safe.
DynamicStoreFactory& systemDynamicStores();

// The keys and patterns a caller asked about, compiled once.
class KeyMatcher {
public:
    KeyMatcher() = default;
    KeyMatcher(std::vector<std::string> keys, const std::vector<std::string>& patterns);

    bool matches(std::string_view key) const;
    // False only when no key starting with `prefix` can match: lets a store
    // skip whole families of keys it would otherwise have to compute.
    bool mayMatchUnder(std::string_view prefix) const;
    bool empty() const { return keys_.empty() && patterns_.empty(); }

private:
    struct Pattern {
        std::shared_ptr<regex_t> compiled;  // null: the pattern did not compile and matches nothing
        std::string literalPrefix;          // every match starts with it
    };
    std::vector<std::string> keys_;
    std::vector<Pattern> patterns_;
};

// The part of an anchored pattern that every match must start with.
std::string literalPrefix(std::string_view pattern);

// Hands batches to a callback on a queue, and guarantees the detach rule
// above. Shared by the stores of every platform; thread-safe.
class NotificationDelivery : public std::enable_shared_from_this<NotificationDelivery> {
public:
    explicit NotificationDelivery(DynamicStore::Callback callback) : callback_(std::move(callback)) {}

    void attach(std::shared_ptr<SerialQueue> queue);
    // Returns once no callback runs or will run, except on the queue itself.
    void detach();
    bool attached() const;
    // Queues one call of the callback with `changedKeys`; dropped when detached.
    void post(plist::Value changedKeys);

private:
    void deliver(std::uint64_t generation, const plist::Value& changedKeys);

    const DynamicStore::Callback callback_;
    mutable Mutex mutex_;
    std::condition_variable idle_;
    std::shared_ptr<SerialQueue> queue_ NV_GUARDED_BY(mutex_);
    std::uint64_t generation_ NV_GUARDED_BY(mutex_) = 0;  // each attach and detach moves it on
    bool running_ NV_GUARDED_BY(mutex_) = false;
    std::thread::id runner_ NV_GUARDED_BY(mutex_);  // the thread running the callback
};

}  // namespace netvane
