#include "netcore/sysconfig/network_change_watcher.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "tests/netcore/sysconfig/fakes.h"

namespace netvane {
namespace {

using namespace std::chrono_literals;
using testing::FakeDynamicStores;
using Keys = std::vector<std::string>;

// Batches as the handler saw them, and whether it ran on the right queue.
class Recorder {
public:
    explicit Recorder(std::shared_ptr<SerialQueue> queue) : queue_(std::move(queue)) {}

    NetworkChangeWatcher::Handler handler() {
        return [this](const Keys& keys) {
            const std::lock_guard guard(mutex_);
            batches_.push_back(keys);
            onQueue_ = onQueue_ && queue_->isCurrent();
            changed_.notify_all();
        };
    }
    std::vector<Keys> waitFor(std::size_t count) {
        std::unique_lock guard(mutex_);
        changed_.wait_for(guard, 5s, [&] { return batches_.size() >= count; });
        return batches_;
    }
    bool onQueue() const {
        const std::lock_guard guard(mutex_);
        return onQueue_;
    }

private:
    std::shared_ptr<SerialQueue> queue_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Keys> batches_;
    bool onQueue_ = true;
};

void drain(SerialQueue& queue) {
    queue.sync([] {});
}

TEST(NetworkChangeWatcher, WatchesTheKeysInOrderAndDeliversEachBatchOnTheQueue) {
    auto queue = std::make_shared<SerialQueue>("watcher");
    FakeDynamicStores stores;
    Recorder recorder(queue);
    NetworkChangeWatcher watcher(queue, recorder.handler(), stores);
    ASSERT_TRUE(watcher.watching());
    EXPECT_EQ(stores.names(), Keys{"Netvane"});
    EXPECT_EQ(stores.notificationKeys().first, Keys{"State:/Network/Interface"});
    EXPECT_EQ(stores.notificationKeys().second,
              (Keys{"State:/Network/Interface/.*", "State:/Network/Global/IPv[46]", "State:/Network/Service/.*",
                    "Setup:/Network/Service/.*"}));

    stores.emit(plist::Array{"State:/Network/Global/IPv4", "State:/Network/Interface/en0/IPv4"});
    stores.emit(plist::Array{"State:/Network/Interface"});
    stores.emit(plist::Array{"State:/Network/Interface"});  // no coalescing: every batch arrives
    EXPECT_EQ(recorder.waitFor(3),
              (std::vector<Keys>{{"State:/Network/Global/IPv4", "State:/Network/Interface/en0/IPv4"},
                                 {"State:/Network/Interface"},
                                 {"State:/Network/Interface"}}));
    EXPECT_TRUE(recorder.onQueue());
}

TEST(NetworkChangeWatcher, AnythingButAnArrayOfStringsArrivesAsNoKeys) {
    auto queue = std::make_shared<SerialQueue>();
    FakeDynamicStores stores;
    Recorder recorder(queue);
    NetworkChangeWatcher watcher(queue, recorder.handler(), stores);
    stores.emit(plist::Dictionary{{"State:/Network/Interface", true}});
    stores.emit(plist::Array{"State:/Network/Interface", 4});
    stores.emit(plist::Array{});
    EXPECT_EQ(recorder.waitFor(3), (std::vector<Keys>{{}, {}, {}}));
}

TEST(NetworkChangeWatcher, WithoutAStoreItStaysInertAndSilent) {
    auto queue = std::make_shared<SerialQueue>();
    FakeDynamicStores stores;
    stores.failCreate();
    std::atomic<int> calls{0};
    NetworkChangeWatcher watcher(queue, [&](const Keys&) { ++calls; }, stores);
    EXPECT_FALSE(watcher.watching());
    stores.emit(plist::Array{"State:/Network/Interface"});
    drain(*queue);
    EXPECT_EQ(calls, 0);
}

TEST(NetworkChangeWatcher, DestructionWaitsForARunningHandlerAndStopsTheRest) {
    auto queue = std::make_shared<SerialQueue>();
    FakeDynamicStores stores;
    std::atomic<bool> inside{false}, finished{false};
    std::atomic<int> calls{0};
    auto watcher = std::make_unique<NetworkChangeWatcher>(
        queue,
        [&](const Keys&) {
            ++calls;
            inside = true;
            std::this_thread::sleep_for(100ms);
            finished = true;
        },
        stores);
    for (int i = 0; i < 5; ++i) stores.emit(plist::Array{"State:/Network/Interface"});
    while (!inside) std::this_thread::sleep_for(1ms);
    watcher.reset();
    EXPECT_TRUE(finished) << "the destructor returned while the handler still ran";
    EXPECT_EQ(stores.liveStores(), 0);
    const int seen = calls;
    stores.emit(plist::Array{"State:/Network/Interface"});
    drain(*queue);
    EXPECT_EQ(calls, seen) << "batches queued before the destruction are dropped";
    EXPECT_EQ(seen, 1);
}

TEST(NetworkChangeWatcher, MayBeDestroyedFromItsOwnHandler) {
    auto queue = std::make_shared<SerialQueue>();
    FakeDynamicStores stores;
    std::unique_ptr<NetworkChangeWatcher> watcher;
    std::atomic<int> calls{0};
    watcher = std::make_unique<NetworkChangeWatcher>(
        queue,
        [&](const Keys& keys) {
            ++calls;
            watcher.reset();  // the handler's own storage must outlive this call
            EXPECT_EQ(keys, Keys{"State:/Network/Interface"});
        },
        stores);
    stores.emit(plist::Array{"State:/Network/Interface"});
    stores.emit(plist::Array{"State:/Network/Interface"});
    drain(*queue);
    drain(*queue);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(stores.liveStores(), 0);
}

}  // namespace
}  // namespace netvane
