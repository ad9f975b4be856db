#include "daemon/shared_tunnel_scan.h"

#include <algorithm>

namespace netvane {

SharedTunnelScan::SharedTunnelScan(std::shared_ptr<TunnelOwnerSource> source, Timing timing, Clock clock)
    : source_(std::move(source)),
      timing_(timing),
      clock_(clock ? std::move(clock) : Clock([] { return std::chrono::steady_clock::now(); })) {}

std::vector<TunnelOwnerEntry> SharedTunnelScan::owners() {
    if (!source_) return {};
    MutexLock lock(mutex_);
    if (running_) {
        const std::uint64_t awaited = scans_ + 1;
        while (running_ && scans_ < awaited) lock.wait(finished_);
        return *last_;
    }
    if (last_ && clock_() < reusableUntil_) return *last_;
    running_ = true;
    lock.unlock();
    const auto started = clock_();
    std::vector<TunnelOwnerEntry> scanned = source_->scan();
    const auto ended = clock_();
    lock.lock();
    last_ = scanned;
    const std::chrono::steady_clock::duration spaced = (ended - started) * timing_.spacing;
    reusableUntil_ = ended + std::max<std::chrono::steady_clock::duration>(timing_.fresh, spaced);
    running_ = false;
    ++scans_;
    finished_.notify_all();
    return scanned;
}

std::uint64_t SharedTunnelScan::scansRun() const {
    MutexLock lock(mutex_);
    return scans_;
}

}  // namespace netvane
