// The daemon's two listeners: the application service and the control
// service, each an IPC server whose connections get a session of their kind.
// This is the one place where the wire meets the sessions: arguments arrive
// checked against the protocol table, and each reply's values (errors
// included) go back as reply slots.
#pragma once

#include <memory>
#include <string>

#include "daemon/admin_daemon.h"
#include "support/ipc/server.h"

namespace netvane {

// Starts serving AdminAppProtocol on `listener`. Closing a connection ends
// its AppSession, which drops that session's pending requests.
std::unique_ptr<ipc::Server> makeAppListener(UniqueFd listener, std::string requirement,
                                             std::shared_ptr<AdminDaemon> daemon, ipc::ServerLimits limits = {});
// Starts serving AdminControlProtocol on `listener`; closing changes nothing.
std::unique_ptr<ipc::Server> makeControlListener(UniqueFd listener, std::string requirement,
                                                 std::shared_ptr<AdminDaemon> daemon, ipc::ServerLimits limits = {});

}  // namespace netvane
