// netvane status: a full reading of this machine's interfaces, the owners of
// its tunnels, and the network services and primary interfaces that label
// them, as the status display shows them.
#include <unistd.h>

#include <cstdio>
#include <string>

#include "command.h"
#include "configuration_report.h"
#include "interface_report.h"
#include "netcore/interfaces/interface_reader.h"
#include "support/json.h"

namespace netvane::cli {
namespace {

int run(const Args& args);

const Command command("status", "netvane status [--json]",
                      "every interface with its addresses, media, flags and counters, the tunnel owners, the "
                      "services and the primary interfaces",
                      run);

int run(const Args& args) {
    bool json = false;
    std::string problem;
    if (!parseJsonFlag(args, json, problem)) return usageError(command, problem);

    const std::vector<InterfaceSnapshot> snapshots = InterfaceReader().snapshot();
    const TunnelOwnerMap owners = TunnelOwners::scan();
    const NetworkMetadata configuration = SystemConfigurationReader::readServicesAndPrimaries();
    if (json) {
        // Written out piece by piece: a reading of many interfaces makes
        // megabytes of text.
        constexpr std::size_t kPiece = 64 * 1024;
        JsonWriter out;
        out.beginObject();
        out.key("interfaces");
        out.beginArray();
        for (const InterfaceSnapshot& snapshot : snapshots) {
            writeSnapshot(out, snapshot);
            if (out.pending() >= kPiece) out.flushTo(stdout);
        }
        out.endArray();
        out.key("tunnelOwners");
        out.value(tunnelOwnersValue(owners));
        writeServicesAndPrimaries(out, configuration);
        out.endObject();
        const std::string rest = out.take();
        std::fwrite(rest.data(), 1, rest.size(), stdout);
        return kExitOK;
    }
    if (snapshots.empty()) std::printf("no interfaces\n");
    for (const InterfaceSnapshot& snapshot : snapshots) printSnapshot(stdout, snapshot);
    std::printf("\ntunnel owners%s:\n", ::geteuid() == 0 ? "" : " (only your own processes; run as root for all)");
    printTunnelOwners(stdout, owners);
    std::printf("\n");
    printServices(stdout, configuration);
    printPrimaries(stdout, configuration);
    return kExitOK;
}

}  // namespace
}  // namespace netvane::cli
