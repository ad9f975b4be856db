#include <unistd.h>

#include <cerrno>

#include "netcore/publicip/byte_stream.h"
#include "support/descriptors.h"

namespace netvane {

Cancellation::Cancellation() {
    // Without a pipe (no descriptors left) waits still see the flag, but only
    // when their own descriptor or timeout wakes them.
    // Close-on-exec: another thread may fork and exec meanwhile.
    auto pipe = openPipe(true);
    if (!pipe) return;
    readEnd_ = std::move(pipe->readEnd);
    writeEnd_ = std::move(pipe->writeEnd);
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

Error closedWithoutNotifyError() {
    return Error{kTLSErrorDomain, kTLSClosedWithoutNotify,
                 "The secure connection was closed before the response was complete"};
}

}  // namespace netvane
