// Opening a file whose path another user may control, for a privileged
// reader: no symlink is followed in any component, and only a regular file is
// ever opened for reading (a FIFO would block or wake its writer, a device
// open can have side effects). The descriptor is read-only, non-blocking and
// close-on-exec. Errors: ELOOP for a symlink anywhere on the path, EINVAL for
// anything but a regular file, or what the system said.
#pragma once

#include <string>

#include "support/result.h"
#include "support/unique_fd.h"

namespace netvane {

// The platform's best way: on Linux, openat2 with RESOLVE_NO_SYMLINKS and a
// type check before the file is opened for reading at all.
Result<UniqueFd> openRegularNoSymlinks(const std::string& path);

// The portable way, one component at a time with O_NOFOLLOW. A name swapped
// between the type check and the open may get a FIFO opened (never read, and
// non-blocking): the descriptor is checked again and refused.
Result<UniqueFd> openRegularByComponents(const std::string& path);

}  // namespace netvane
