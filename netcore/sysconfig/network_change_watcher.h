// Tells its owner, on a queue of the owner's choosing, whenever the system's
// network state or configuration changes: an interface comes, goes or changes
// its addresses, the primary IPv4 or IPv6 route moves, a service starts,
// stops or is reconfigured. Each call names the store keys that changed in
// one batch; the reaction (and any debouncing) is the owner's business.
//
// The watcher's lifetime is the subscription: notifications start in the
// constructor and end in the destructor. IMPORTANT: once the destructor has
// returned the handler is never called again and no call of it is still
// running. When no store connection can be made the watcher stays inert and
// says nothing. The handler runs on the queue, never concurrently with itself.
// The queue must outlive the watcher only by being shared: the watcher keeps
// a reference.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "netcore/sysconfig/dynamic_store.h"
#include "support/serial_queue.h"

namespace netvane {

class NetworkChangeWatcher final {
public:
    using Handler = std::function<void(const std::vector<std::string>& changedKeys)>;

    // The plain key and the patterns watched, in the order they are registered.
    static const std::vector<std::string>& watchedKeys();
    static const std::vector<std::string>& watchedPatterns();

    NetworkChangeWatcher(std::shared_ptr<SerialQueue> queue, Handler handler);
    NetworkChangeWatcher(std::shared_ptr<SerialQueue> queue, Handler handler, DynamicStoreFactory& stores);
    ~NetworkChangeWatcher();
    NetworkChangeWatcher(const NetworkChangeWatcher&) = delete;
    NetworkChangeWatcher& operator=(const NetworkChangeWatcher&) = delete;

    bool watching() const { return store_ != nullptr; }

private:
    struct Box {
        Handler handler;
    };

    std::shared_ptr<SerialQueue> queue_;
    std::unique_ptr<Box> box_;
    std::unique_ptr<DynamicStore> store_;  // null: inert
};

}  // namespace netvane
