#include "support/bounded_call.h"

#include <gtest/gtest.h>

#include <future>
#include <vector>

namespace netvane {
namespace {

using namespace std::chrono_literals;

TEST(BoundedCall, LateWorkIsLeftBehindAndStalledThreadsAreCapped) {
    EXPECT_EQ(callWithin<int>(5s, [] { return 7; }), 7);

    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    const auto stalled = [released] {
        released.wait();
        return 1;
    };
    const auto began = std::chrono::steady_clock::now();
    for (int i = 0; i < kMaxAbandonedCalls; ++i) EXPECT_EQ(callWithin<int>(20ms, stalled), std::nullopt);
    EXPECT_LT(std::chrono::steady_clock::now() - began, 5s) << "each caller waited its limit, no more";
    std::atomic<bool> started{false};
    EXPECT_EQ(callWithin<int>(5s, [&started] { return started = true, 2; }), std::nullopt)
        << "with every allowed thread stalled, nothing more is started";
    EXPECT_FALSE(started);

    release.set_value();
    for (int i = 0; i < 500 && !callWithin<int>(1s, [] { return 3; }); ++i) std::this_thread::sleep_for(10ms);
    EXPECT_EQ(callWithin<int>(1s, [] { return 3; }), 3) << "once the stalls end, work is started again";
}

}  // namespace
}  // namespace netvane
