// Tunnel scans shared by everyone who asks at about the same time. A scan
// walks every descriptor of every process, so its cost grows with what other
// users hold open, not with who asks; sharing makes the CPU that scans take
// a matter of time alone, however many callers and users there are:
//   - a caller who asks while a scan runs waits for it and gets its result;
//   - a result is handed out again until it is `fresh` old, or `spacing`
//     times as old as the scan took, whichever is longer, so scans never
//     take more than 1 / (1 + spacing) of one core.
// Transport-neutral and thread-safe; the clock is injected for tests.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "daemon/tunnel_owner_source.h"
#include "support/mutex.h"

namespace netvane {

class SharedTunnelScan {
public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;
    struct Timing {
        std::chrono::milliseconds fresh{1000};
        unsigned spacing = 4;
    };

    // A null source knows no owners.
    SharedTunnelScan(std::shared_ptr<TunnelOwnerSource> source, Timing timing, Clock clock = {});

    std::vector<TunnelOwnerEntry> owners() NV_EXCLUDES(mutex_);
    std::uint64_t scansRun() const NV_EXCLUDES(mutex_);

private:
    const std::shared_ptr<TunnelOwnerSource> source_;
    const Timing timing_;
    const Clock clock_;
    mutable Mutex mutex_;
    std::condition_variable finished_;
    bool running_ NV_GUARDED_BY(mutex_) = false;
    std::uint64_t scans_ NV_GUARDED_BY(mutex_) = 0;
    std::optional<std::vector<TunnelOwnerEntry>> last_ NV_GUARDED_BY(mutex_);
    std::chrono::steady_clock::time_point reusableUntil_ NV_GUARDED_BY(mutex_);
};

}  // namespace netvane
