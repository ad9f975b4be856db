// macOS: the deadline is a point on CLOCK_MONOTONIC, which on this system
// keeps counting while the machine sleeps. poll's own timeout may not, so
// waits run in slices and look at the clock after each one: a wait that
// spans a sleep ends at most one slice after the deadline.
#include "netcore/publicip/attempt_waiter.h"

#include <poll.h>
#include <time.h>

#include <algorithm>
#include <cerrno>

namespace netvane {
namespace {

constexpr std::int64_t kSliceMs = 1000;

std::int64_t nowNs() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

}  // namespace

Result<AttemptWaiter> AttemptWaiter::start(std::chrono::milliseconds timeout, const Cancellation* cancellation) {
    const auto budget = std::max(std::chrono::nanoseconds(timeout), std::chrono::nanoseconds(1));
    return AttemptWaiter(UniqueFd(), nowNs() + budget.count(), cancellation);
}

Status AttemptWaiter::wait(int fd, short events) const { return poll(fd, events, -1); }

Status AttemptWaiter::check() const { return poll(-1, 0, 0); }

Status AttemptWaiter::poll(int fd, short events, int timeoutMs) const {
    pollfd fds[2] = {
        {cancellation_ ? cancellation_->fd() : -1, POLLIN, 0},
        {fd, events, 0},
    };
    for (;;) {
        if (cancellation_ && cancellation_->isCancelled()) return cancelledError();
        const std::int64_t left = deadline_ - nowNs();
        if (left <= 0) return timedOutError();
        const std::int64_t leftMs = (left + 999'999) / 1'000'000;
        const int slice = timeoutMs == 0 ? 0 : static_cast<int>(std::min(leftMs, kSliceMs));
        const int ready = ::poll(fds, 2, slice);
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) return posixError(errno, "poll");
        if (cancellation_ && cancellation_->isCancelled()) return cancelledError();
        if (deadline_ <= nowNs()) return timedOutError();
        if (ready > 0 && fds[1].revents != 0) return {};
        if (timeoutMs == 0) return {};
    }
}

}  // namespace netvane
