// A serial queue: closures run one at a time, in the order they were given,
// on one thread that belongs to the queue. It stands in for the dispatch
// queue that a caller hands to a component which calls back "on a queue of
// the owner's choosing".
//
// Work queued before the queue is destroyed still runs; destruction waits
// for it, except on the queue's own thread (a closure that drops the last
// reference), where the thread finishes the remaining work and then ends by
// itself. Every member function may be called from any thread.
#pragma once

#include <functional>
#include <memory>
#include <string>

namespace netvane {

class SerialQueue {
public:
    explicit SerialQueue(std::string label = "");
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::string& label() const { return label_; }

    // Runs `work` after everything queued before it; returns at once.
    void async(std::function<void()> work);
    // Runs `work` after everything queued before it and waits for it; on the
    // queue's own thread it runs at once (waiting would never end).
    void sync(const std::function<void()>& work);
    // True on the queue's thread, that is inside a closure it runs.
    bool isCurrent() const;

private:
    struct State;
    std::string label_;
    std::shared_ptr<State> state_;
};

}  // namespace netvane
