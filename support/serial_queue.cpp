#include "support/serial_queue.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace netvane {

// Shared with the thread, so that a queue released on its own thread stays
// valid until the thread has drained it.
struct SerialQueue::State {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> work;  // guarded by mutex
    bool closing = false;                    // guarded by mutex
    std::thread::id owner;                   // written once, before any work runs
    std::thread thread;

    void run() {
        for (;;) {
            std::function<void()> next;
            {
                std::unique_lock guard(mutex);
                wake.wait(guard, [this] { return closing || !work.empty(); });
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
    std::unique_lock guard(state_->mutex);
    state_->thread = std::thread([state = state_] { state->run(); });
    state_->owner = state_->thread.get_id();
}

SerialQueue::~SerialQueue() {
    {
        const std::lock_guard guard(state_->mutex);
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
        const std::lock_guard guard(state_->mutex);
        state_->work.push_back(std::move(work));
    }
    state_->wake.notify_one();
}

void SerialQueue::sync(const std::function<void()>& work) {
    if (isCurrent()) {
        work();
        return;
    }
    std::mutex doneMutex;
    std::condition_variable doneSignal;
    bool done = false;
    async([&] {
        work();
        const std::lock_guard guard(doneMutex);
        done = true;
        doneSignal.notify_one();
    });
    std::unique_lock guard(doneMutex);
    doneSignal.wait(guard, [&] { return done; });
}

bool SerialQueue::isCurrent() const {
    const std::lock_guard guard(state_->mutex);
    return state_->owner == std::this_thread::get_id();
}

}  // namespace netvane
