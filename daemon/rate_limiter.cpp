#include "daemon/rate_limiter.h"

#include <algorithm>

namespace netvane {
namespace {

// Buckets that have filled up again say nothing a fresh bucket would not;
// they are dropped once this many users are tracked, so a host with many
// users does not grow the table for ever.
constexpr std::size_t kPruneAbove = 1024;

}  // namespace

RateLimiter::RateLimiter(Rate rate, Clock clock)
    : rate_(rate), clock_(clock ? std::move(clock) : Clock([] { return std::chrono::steady_clock::now(); })) {}

bool RateLimiter::allow(std::uint32_t uid) {
    const auto now = clock_();
    const double burst = rate_.burst;
    const auto refilled = [&](const Bucket& bucket) {
        const std::chrono::duration<double, std::milli> elapsed = now - bucket.updated;
        return std::min(burst, bucket.tokens + elapsed.count() / static_cast<double>(rate_.refill.count()));
    };
    const std::lock_guard guard(mutex_);
    if (buckets_.size() > kPruneAbove) {
        std::erase_if(buckets_, [&](const auto& entry) { return refilled(entry.second) >= burst; });
    }
    auto [it, fresh] = buckets_.try_emplace(uid, Bucket{burst, now});
    Bucket& bucket = it->second;
    if (!fresh) bucket.tokens = refilled(bucket);
    bucket.updated = now;
    if (bucket.tokens < 1) return false;
    bucket.tokens -= 1;
    return true;
}

}  // namespace netvane
