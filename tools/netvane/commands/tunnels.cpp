// netvane tunnels: which process owns each tunnel interface.
#include <unistd.h>

#include <cstdio>
#include <string>

#include "command.h"
#include "interface_report.h"
#include "support/json.h"

namespace netvane::cli {
namespace {

int run(const Args& args);

const Command command("tunnels", "netvane tunnels [--json]",
                      "the process owning each tunnel interface (all processes only as root)", run);

int run(const Args& args) {
    bool json = false;
    std::string problem;
    if (!parseJsonFlag(args, json, problem)) return usageError(command, problem);
    const TunnelOwnerMap owners = TunnelOwners::scan();
    if (json) {
        std::printf("%s\n", toJSON(tunnelOwnersValue(owners)).c_str());
    } else {
        if (::geteuid() != 0) std::fprintf(stderr, "netvane: note: only your own processes are visible; run as root for all\n");
        printTunnelOwners(stdout, owners);
    }
    return kExitOK;
}

}  // namespace
}  // namespace netvane::cli
