// Facts about processes that the authorization check needs.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "support/unique_fd.h"

namespace netvane {

// One process, pinned for as long as the handle lives (a pidfd on Linux, a
// kqueue watching its exit elsewhere): it tells whether that very process
// still runs, whatever has become of its pid.
class ProcessHandle {
public:
    explicit ProcessHandle(UniqueFd handle) : handle_(std::move(handle)) {}
    // False once the process has exited (or the handle is empty).
    bool alive() const;
    int fd() const { return handle_.get(); }

private:
    UniqueFd handle_;
};

// The kernel's start time of `pid` (clock ticks since boot on Linux), which
// together with the pid names one process for good; 0 when unknown.
std::uint64_t processStartTime(pid_t pid);

}  // namespace netvane
