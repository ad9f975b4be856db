// Work that must not hold its caller for long, however long the system takes
// (a read from a file system that another user serves and can stall). The
// work runs on a thread of its own; the caller waits until its deadline and
// then goes on without the result. A late thread finishes on its own and its
// result is dropped. At most `kMaxAbandoned` late threads may be outstanding
// in the whole process: past that, no more work is started (nullopt at once),
// so stalls cannot collect threads without bound.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>

#include "support/mutex.h"

namespace netvane {

inline constexpr int kMaxAbandonedCalls = 8;

namespace bounded_call_detail {
inline std::atomic<int>& abandoned() {
    static std::atomic<int> count{0};
    return count;
}
}  // namespace bounded_call_detail

// The result of `work`, or nullopt when it was not done within `limit` (or
// could not be started). `work` must own everything it touches.
template <class T>
std::optional<T> callWithin(std::chrono::milliseconds limit, std::function<T()> work) {
    using bounded_call_detail::abandoned;
    if (abandoned().load() >= kMaxAbandonedCalls) return std::nullopt;
    struct Shared {
        Mutex mutex;
        std::condition_variable done;
        std::optional<T> result NV_GUARDED_BY(mutex);
        bool finished NV_GUARDED_BY(mutex) = false;
        bool late NV_GUARDED_BY(mutex) = false;
    };
    auto shared = std::make_shared<Shared>();
    try {
        std::thread([shared, work = std::move(work)] {
            T value = work();
            MutexLock lock(shared->mutex);
            shared->finished = true;
            if (shared->late) {
                abandoned().fetch_sub(1);
                return;
            }
            shared->result = std::move(value);
            shared->done.notify_all();
        }).detach();
    } catch (const std::system_error&) {
        return std::nullopt;
    }
    const auto deadline = std::chrono::steady_clock::now() + limit;
    MutexLock lock(shared->mutex);
    while (!shared->finished) {
        if (!lock.waitUntil(shared->done, deadline) && !shared->finished) {
            shared->late = true;
            abandoned().fetch_add(1);
            return std::nullopt;
        }
    }
    return std::move(shared->result);
}

}  // namespace netvane
