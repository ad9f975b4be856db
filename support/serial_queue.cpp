#include "support/serial_queue.h"

#include <condition_variable>
#include <deque>
#include <thread>

#include "support/mutex.h"

namespace netvane {

// Shared with the thread, so that a queue released on its own thread stays
// valid until the thread has drained it.
struct SerialQueue::State {
    Mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> work NV_GUARDED_BY(mutex);
    bool closing NV_GUARDED_BY(mutex) = false;
    std::thread::id owner NV_GUARDED_BY(mutex);  // written once, before any work runs
    std::thread thread;

    void run() {
        for (;;) {
            std::function<void()> next;
            {
                MutexLock lock(mutex);
                while (!closing && work.empty()) lock.wait(wake);
                if (work.empty()) return;
                next = std::move(work.front());
                work.pop_front();
            }
            next();
        }
    }
};

SerialQueue::SerialQueue(std::string label) : label_(std::move(label)), state_(std::make_shared<State>()) {
    // The thread holds its own reference; see State.
    MutexLock lock(state_->mutex);
    state_->thread = std::thread([state = state_] { state->run(); });
    state_->owner = state_->thread.get_id();
}

SerialQueue::~SerialQueue() {
    {
        MutexLock lock(state_->mutex);
        state_->closing = true;
    }
    state_->wake.notify_one();
    if (isCurrent()) {
        state_->thread.detach();
    } else {
        state_->thread.join();
    }
}

void SerialQueue::async(std::function<void()> work) {
    {
        MutexLock lock(state_->mutex);
        state_->work.push_back(std::move(work));
    }
    state_->wake.notify_one();
}

void SerialQueue::sync(const std::function<void()>& work) {
    if (isCurrent()) {
        work();
        return;
    }
    struct Done {
        Mutex mutex;
        std::condition_variable signal;
        bool done NV_GUARDED_BY(mutex) = false;
    } finished;
    async([&] {
        work();
        MutexLock lock(finished.mutex);
        finished.done = true;
        finished.signal.notify_one();
    });
    MutexLock lock(finished.mutex);
    while (!finished.done) lock.wait(finished.signal);
}

bool SerialQueue::isCurrent() const {
    MutexLock lock(state_->mutex);
    return state_->owner == std::this_thread::get_id();
}

}  // namespace netvane
