// Per-user token buckets: how the daemon keeps one local user from making
// the calls that cost it real work (file writes, authority requests, process
// scans, log lines) so often that other users wait or the journal drops our
// audit lines. Each user has a bucket of `burst` tokens that refills by one
// every `refill`; a call that finds the bucket empty is refused. A
// well-behaved client never comes near the limits.
//
// Thread-safe; the clock is injected so tests need not sleep.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <unordered_map>

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

private:
    struct Bucket {
        double tokens = 0;
        std::chrono::steady_clock::time_point updated;
    };

    const Rate rate_;
    const Clock clock_;
    std::mutex mutex_;
    std::unordered_map<std::uint32_t, Bucket> buckets_;
};

}  // namespace netvane
