// Per-user token buckets: how the daemon spaces out the calls of one local
// user that cost it real work (file writes, authority requests) and the log
// lines it writes about each user, so that nobody can make the daemon slow
// for others or flood the journal until it drops the lines that matter.
// Each user has a bucket of `burst` tokens that refills by one every
// `refill`. A call takes its turn with reserve(): at once while the bucket
// holds a token, else at the moment the bucket will have refilled for it,
// one turn after another (the caller waits; nobody is refused). A log line
// asks allow(), which simply says no once the bucket is empty. A
// well-behaved client never comes near the limits.
//
// Thread-safe; the clock is injected so tests need not sleep.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <unordered_map>

#include "support/mutex.h"

namespace netvane {

class RateLimiter {
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;
    struct Rate {
        std::uint32_t burst = 1;
        std::chrono::milliseconds refill{1000};  // one token back per this long
    };

    explicit RateLimiter(Rate rate, Clock clock = {});

    // Takes a token of `uid`; false when none is left.
    bool allow(std::uint32_t uid);
    // Takes `uid`'s next turn, owing the token when none is left; returns
    // when that turn comes (now, while within the burst).
    std::chrono::steady_clock::time_point reserve(std::uint32_t uid);

private:
    struct Bucket {
        double tokens = 0;  // below zero: turns promised ahead of the refill
        std::chrono::steady_clock::time_point updated;
    };
    // The bucket of `uid` brought up to `now`.
    Bucket& refilled(std::uint32_t uid, std::chrono::steady_clock::time_point now) NV_REQUIRES(mutex_);

    const Rate rate_;
    const Clock clock_;
    Mutex mutex_;
    std::unordered_map<std::uint32_t, Bucket> buckets_ NV_GUARDED_BY(mutex_);
};

}  // namespace netvane
