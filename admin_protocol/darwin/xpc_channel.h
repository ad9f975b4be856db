// The admin clients' transport on macOS: an XPC connection to the daemon's
// privileged Mach service, named after the team in this program's own
// Info.plist (AdminConstants). Connecting never fails by itself: a daemon
// that cannot be reached shows on the first call (ipc::kUnreachable).
#pragma once

#include "admin_protocol/admin_clients.h"

namespace netvane {

Result<AdminAppClient> connectAppClient();
Result<AdminControlClient> connectControlClient();

}  // namespace netvane
