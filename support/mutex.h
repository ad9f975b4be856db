// A mutex whose lock rules the compiler checks. Members marked
// NV_GUARDED_BY(m) may be touched only while `m` is held; functions marked
// NV_REQUIRES(m) may be called only with it held. Clang's -Wthread-safety
// (on in every Clang build) rejects code that breaks either rule; GCC ignores
// the attributes.
//
// The analysis cannot see into lambdas, so a condition is waited for in a loop
// around `wait` rather than with a predicate:
//     MutexLock lock(mutex_);
//     while (!ready_) lock.wait(changed_);
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define NV_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define NV_THREAD_ATTRIBUTE(x)
#endif

#define NV_CAPABILITY(name) NV_THREAD_ATTRIBUTE(capability(name))
#define NV_SCOPED_CAPABILITY NV_THREAD_ATTRIBUTE(scoped_lockable)
#define NV_GUARDED_BY(m) NV_THREAD_ATTRIBUTE(guarded_by(m))
#define NV_PT_GUARDED_BY(m) NV_THREAD_ATTRIBUTE(pt_guarded_by(m))
#define NV_REQUIRES(...) NV_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define NV_EXCLUDES(...) NV_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define NV_ACQUIRE(...) NV_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define NV_RELEASE(...) NV_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define NV_TRY_ACQUIRE(...) NV_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define NV_RETURN_CAPABILITY(m) NV_THREAD_ATTRIBUTE(lock_returned(m))
#define NV_NO_THREAD_SAFETY_ANALYSIS NV_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace netvane {

class NV_CAPABILITY("mutex") Mutex {
public:
    void lock() NV_ACQUIRE() { mutex_.lock(); }
    void unlock() NV_RELEASE() { mutex_.unlock(); }
    bool try_lock() NV_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

private:
    friend class MutexLock;
    std::mutex mutex_;
};

// Holds a Mutex for its scope. It may be released and taken again inside the
// scope (to call out without the lock), and waits on a condition variable
// with the mutex held before and after, as the analysis assumes.
class NV_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) NV_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
    ~MutexLock() NV_RELEASE() = default;
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void unlock() NV_RELEASE() { lock_.unlock(); }
    void lock() NV_ACQUIRE() { lock_.lock(); }

    void wait(std::condition_variable& condition) { condition.wait(lock_); }
    // False once the deadline has passed.
    template <class Clock, class Duration>
    bool waitUntil(std::condition_variable& condition, std::chrono::time_point<Clock, Duration> deadline) {
        return condition.wait_until(lock_, deadline) == std::cv_status::no_timeout;
    }

private:
    std::unique_lock<std::mutex> lock_;
};

}  // namespace netvane
