#include "support/serial_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

namespace netvane {
namespace {

using namespace std::chrono_literals;

TEST(SerialQueue, RunsWorkOneAtATimeInOrderOnItsOwnThread) {
    SerialQueue queue("order");
    std::vector<int> order;
    std::atomic<int> running{0}, overlaps{0};
    std::vector<std::thread> producers;
    std::mutex orderMutex;
    for (int i = 0; i < 100; ++i) {
        queue.async([&, i] {
            if (++running > 1) ++overlaps;
            std::this_thread::yield();
            const std::lock_guard guard(orderMutex);
            order.push_back(i);
            --running;
        });
    }
    for (int t = 0; t < 4; ++t) {
        producers.emplace_back([&] {
            for (int i = 0; i < 50; ++i) queue.async([&] {
                if (++running > 1) ++overlaps;
                --running;
            });
        });
    }
    for (std::thread& producer : producers) producer.join();
    bool onQueue = false;
    queue.sync([&] { onQueue = queue.isCurrent(); });
    EXPECT_TRUE(onQueue);
    EXPECT_FALSE(queue.isCurrent());
    EXPECT_EQ(overlaps, 0);
    ASSERT_EQ(order.size(), 100u);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
}

TEST(SerialQueue, SyncFromItsOwnThreadRunsAtOnce) {
    SerialQueue queue;
    int value = 0;
    queue.sync([&] { queue.sync([&] { value = 1; }); });
    EXPECT_EQ(value, 1);
}

TEST(SerialQueue, DestructionRunsWhatWasQueued) {
    std::atomic<int> ran{0};
    {
        SerialQueue queue;
        queue.async([&] { std::this_thread::sleep_for(50ms); });
        for (int i = 0; i < 10; ++i) queue.async([&] { ++ran; });
    }
    EXPECT_EQ(ran, 10);
}

TEST(SerialQueue, MayBeReleasedByItsOwnWork) {
    auto queue = std::make_shared<SerialQueue>();
    std::atomic<bool> released{false}, after{false};
    auto* holder = new std::shared_ptr<SerialQueue>(queue);
    queue->async([holder, &released] {
        while (!released) std::this_thread::sleep_for(1ms);
        delete holder;  // the last reference goes here, on the queue's own thread
    });
    queue->async([&] { after = true; });
    queue.reset();
    released = true;
    for (int i = 0; i < 2000 && !after; ++i) std::this_thread::sleep_for(1ms);
    EXPECT_TRUE(after) << "work queued before the release still ran";
}

}  // namespace
}  // namespace netvane
