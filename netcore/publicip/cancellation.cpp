#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "netcore/publicip/byte_stream.h"

namespace netvane {

Cancellation::Cancellation() {
    int ends[2];
    // Without a pipe (no descriptors left) waits still see the flag, but only
    // when their own descriptor or timeout wakes them.
    // Close-on-exec from the start: another thread may fork and exec meanwhile.
    if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return;
    readEnd_.reset(ends[0]);
    writeEnd_.reset(ends[1]);
}

void Cancellation::cancel() {
    if (cancelled_.exchange(true, std::memory_order_acq_rel)) return;
    // The byte is never read: the pipe stays readable and wakes every later wait too.
    const char byte = 1;
    if (!writeEnd_) return;
    while (::write(writeEnd_.get(), &byte, 1) < 0 && errno == EINTR) {
    }
}

Error timedOutError() { return Error{kURLErrorDomain, kURLErrorTimedOut, "The request timed out."}; }

Error cancelledError() { return posixError(ECANCELED); }

}  // namespace netvane
