// One attempt's deadline and cancellation, watched beside the descriptor that
// each of its waits polls.
//
// The deadline runs on a clock that keeps counting while the machine sleeps,
// so a suspended attempt times out on waking instead of starting its budget
// over; one implementation per OS. Every blocking wait of the attempt goes
// through `wait`; the owner of the attempt is its only user.
#pragma once

#include <chrono>
#include <cstdint>

#include "netcore/publicip/byte_stream.h"
#include "support/result.h"
#include "support/unique_fd.h"

namespace netvane {

class AttemptWaiter {
public:
    static Result<AttemptWaiter> start(std::chrono::milliseconds timeout, const Cancellation* cancellation);

    // Until `fd` reports one of `events` (or an error or hang-up, which the
    // next call on it will report); cancellation wins over the deadline,
    // and both win over a ready descriptor.
    Status wait(int fd, short events) const;
    // The same without waiting: fails once cancelled or past the deadline.
    Status check() const;

private:
    AttemptWaiter(UniqueFd timer, std::int64_t deadline, const Cancellation* cancellation)
        : timer_(std::move(timer)), deadline_(deadline), cancellation_(cancellation) {}
    Status poll(int fd, short events, int timeoutMs) const;

    // Each platform keeps the deadline its own way: a timer descriptor that
    // turns readable, or a point in nanoseconds on the sleep-inclusive clock;
    // the other stays unused.
    [[maybe_unused]] UniqueFd timer_;
    [[maybe_unused]] std::int64_t deadline_ = 0;
    const Cancellation* cancellation_ = nullptr;
};

}  // namespace netvane
