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

RateLimiter::Bucket& RateLimiter::refilled(std::uint32_t uid, std::chrono::steady_clock::time_point now) {
    const double burst = rate_.burst;
    const auto level = [&](const Bucket& bucket) {
        const std::chrono::duration<double, std::milli> elapsed = now - bucket.updated;
        return std::min(burst, bucket.tokens + elapsed.count() / static_cast<double>(rate_.refill.count()));
    };
    if (buckets_.size() > kPruneAbove) {
        std::erase_if(buckets_, [&](const auto& entry) { return level(entry.second) >= burst; });
    }
    auto [it, fresh] = buckets_.try_emplace(uid, Bucket{burst, now});
    Bucket& bucket = it->second;
    if (!fresh) bucket.tokens = level(bucket);
    bucket.updated = now;
    return bucket;
}

bool RateLimiter::allow(std::uint32_t uid) {
    const auto now = clock_();
    MutexLock lock(mutex_);
    Bucket& bucket = refilled(uid, now);
    if (bucket.tokens < 1) return false;
    bucket.tokens -= 1;
    return true;
}

std::chrono::steady_clock::time_point RateLimiter::reserve(std::uint32_t uid) {
    const auto now = clock_();
    MutexLock lock(mutex_);
    Bucket& bucket = refilled(uid, now);
    bucket.tokens -= 1;
    if (bucket.tokens >= 0) return now;
    // The turn comes when the refill has paid back what is owed.
    const double owed = -bucket.tokens;
    return now + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                     std::chrono::duration<double, std::milli>(owed * static_cast<double>(rate_.refill.count())));
}

}  // namespace netvane
