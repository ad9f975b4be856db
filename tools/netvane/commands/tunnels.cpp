// netvane tunnels: which process owns each tunnel interface.
#include <unistd.h>

#include <string>

#include "command.h"
#include "interface_report.h"
#include "io.h"
#include "support/json.h"

namespace netvane::cli {
namespace {

int run(const Arguments& arguments);

const Command command{
    "tunnels",
    "netvane tunnels [--json]",
    "the process owning each tunnel interface (root only)",
    {},
    {kJsonOption},
    "Each tunnel interface with the pid, name and executable of the process that owns it. The scan needs "
    "root: only root can ask a tunnel which network namespace it lives in, and a tunnel whose namespace "
    "cannot be asked is left out, so for other users the list is empty ('netvane admin app tunnels' asks the "
    "daemon instead). Names and paths are shown with their control characters escaped.\n"
    "Exit status 0; 1 when the output fails.",
    run,
};

int run(const Arguments& arguments) {
    const TunnelOwnerMap owners = TunnelOwners::scan();
    if (arguments.flag("--json")) {
        print(toJSON(tunnelOwnersValue(owners)));
        return kExitOK;
    }
    if (::geteuid() != 0) note(tunnelVisibilityNote());
    printTunnelOwners(owners);
    return kExitOK;
}

}  // namespace
}  // namespace netvane::cli
