#include "netcore/publicip/attempt_waiter.h"

#include <poll.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>

namespace netvane {

Result<AttemptWaiter> AttemptWaiter::start(std::chrono::milliseconds timeout, const Cancellation* cancellation) {
    UniqueFd timer(::timerfd_create(CLOCK_BOOTTIME, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!timer) return posixError(errno, "timerfd_create");
    // A zero it_value would disarm the timer: an empty budget expires at once instead.
    const auto budget = std::max(std::chrono::nanoseconds(timeout), std::chrono::nanoseconds(1));
    itimerspec deadline{};
    deadline.it_value.tv_sec = static_cast<time_t>(std::chrono::duration_cast<std::chrono::seconds>(budget).count());
    deadline.it_value.tv_nsec = static_cast<long>((budget % std::chrono::seconds(1)).count());
    if (::timerfd_settime(timer.get(), 0, &deadline, nullptr) != 0) return posixError(errno, "timerfd_settime");
    return AttemptWaiter(std::move(timer), 0, cancellation);
}

Status AttemptWaiter::wait(int fd, short events) const { return poll(fd, events, -1); }

Status AttemptWaiter::check() const { return poll(-1, 0, 0); }

Status AttemptWaiter::poll(int fd, short events, int timeoutMs) const {
    pollfd fds[3] = {
        {cancellation_ ? cancellation_->fd() : -1, POLLIN, 0},
        {timer_.get(), POLLIN, 0},
        {fd, events, 0},
    };
    for (;;) {
        const int ready = ::poll(fds, 3, timeoutMs);
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0) return posixError(errno, "poll");
        if (cancellation_ && cancellation_->isCancelled()) return cancelledError();
        if (fds[1].revents != 0) return timedOutError();
        if (ready > 0 || timeoutMs == 0) return {};
    }
}

}  // namespace netvane
