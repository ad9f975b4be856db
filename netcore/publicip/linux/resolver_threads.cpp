#include "netcore/publicip/linux/resolver_threads.h"

#include <condition_variable>
#include <deque>
#include <system_error>
#include <thread>

#include "support/mutex.h"

namespace netvane {
namespace {

struct ResolverThreads {
    Mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> jobs NV_GUARDED_BY(mutex);
    std::size_t waiting NV_GUARDED_BY(mutex) = 0;  // threads waiting for a job
};

// Never destroyed: a thread still inside a hung resolution may come back to
// it while the process exits.
ResolverThreads& threads() {
    static ResolverThreads* const shared = new ResolverThreads;
    return *shared;
}

void serve(ResolverThreads& pool) {
    MutexLock lock(pool.mutex);
    for (;;) {
        const auto idleUntil = std::chrono::steady_clock::now() + kResolverIdleLifetime;
        while (pool.jobs.empty()) {
            ++pool.waiting;
            const bool woken = lock.waitUntil(pool.wake, idleUntil);
            --pool.waiting;
            if (!woken && pool.jobs.empty()) return;
        }
        std::function<void()> job = std::move(pool.jobs.front());
        pool.jobs.pop_front();
        lock.unlock();
        job();
        lock.lock();
    }
}

}  // namespace

bool runOnResolverThread(std::function<void()> job) {
    ResolverThreads& pool = threads();
    MutexLock lock(pool.mutex);
    pool.jobs.push_back(std::move(job));
    // Each waiting thread takes one job; more jobs than that need a thread more.
    if (pool.waiting >= pool.jobs.size()) {
        pool.wake.notify_one();
        return true;
    }
    try {
        std::thread([&pool] { serve(pool); }).detach();
    } catch (const std::system_error&) {
        pool.jobs.pop_back();
        return false;
    }
    return true;
}

}  // namespace netvane
