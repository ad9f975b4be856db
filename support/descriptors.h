// Sockets and pipes that are close-on-exec and, where asked, non-blocking
// from the moment they exist, as far as the platform allows: where it has no
// atomic form the flags follow at once, and a child that another thread
// starts in between could inherit the descriptor. One implementation per OS.
#pragma once

#include "support/result.h"
#include "support/unique_fd.h"

namespace netvane {

// socket(2) with close-on-exec; an invalid descriptor (errno set) on failure.
UniqueFd openSocket(int domain, int type, int protocol);

struct Pipe {
    UniqueFd readEnd;
    UniqueFd writeEnd;
};

// Both ends close-on-exec, and non-blocking when asked.
Result<Pipe> openPipe(bool nonBlocking);

}  // namespace netvane
