// Facts about processes that the authorization check needs.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace netvane {

// The kernel's start time of `pid` (clock ticks since boot on Linux), which
// together with the pid names one process for good; 0 when unknown.
std::uint64_t processStartTime(pid_t pid);

}  // namespace netvane
