// Watches the kernel (links, IPv4 and IPv6 addresses, routes and policy
// rules) and NetworkManager (profiles and active connections) on a thread of
// its own, and reports the store keys each change touched.
//
// Events that arrive close together are one change: a batch is reported once
// no further event came for kQuiet, or kMaxHold after its first event at the
// latest. A kernel overrun (events dropped because we fell behind) is made
// good by re-reading the links and reporting every interface key that may
// have changed. A re-read that fails is no news that the links are gone:
// the links known before stay known (so their removal is still reported),
// their keys are reported as possibly changed, and the re-read is tried
// again every kRereadRetry until it succeeds. Without a system bus or
// NetworkManager only the kernel is watched; NetworkManager appearing later
// is noticed.
//
// `report` runs on the monitor's thread. Destruction stops the thread and
// returns after it ended: no report runs after that.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

#include "netcore/sysconfig/linux/change_trackers.h"
#include "support/result.h"

namespace netvane {

class ChangeMonitor {
public:
    // The kernel sends the events of one change within microseconds of each
    // other and NetworkManager its signals within a millisecond or two.
    static constexpr std::chrono::microseconds kQuiet{2000};
    // A stream of changes still gets reported while it lasts.
    static constexpr std::chrono::milliseconds kMaxHold{50};
    // A failed re-read is mostly the kernel short of memory for a moment.
    static constexpr std::chrono::milliseconds kRereadRetry{200};

    // How the links are read: for the baseline and again after an overrun.
    using LinkReader = std::function<Result<std::vector<kernel::Link>>(nv_nl_socket_t* routing)>;

    struct Options {
        // The kernel's queue for our events, in bytes: large enough that a
        // burst (a whole interface going away) fits.
        int receiveBuffer = 1 << 20;
        // Counts the overruns made good, for those who must know one happened.
        std::shared_ptr<std::atomic<unsigned>> overruns;
        // kernel::dumpLinks when empty; tests hand in one that fails, which
        // the kernel cannot be made to do at will.
        LinkReader readLinks = {};
    };
    using Report = std::function<void(KeySet changedKeys)>;

    // Subscribed and holding its baseline when it returns, so that every
    // change after that is reported; fails when the baseline cannot be read.
    static Result<std::unique_ptr<ChangeMonitor>> start(Report report, Options options);
    ~ChangeMonitor();
    ChangeMonitor(const ChangeMonitor&) = delete;
    ChangeMonitor& operator=(const ChangeMonitor&) = delete;

private:
    struct State;
    explicit ChangeMonitor(std::unique_ptr<State> state);
    std::unique_ptr<State> state_;
};

}  // namespace netvane
