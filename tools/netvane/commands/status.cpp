// netvane status: a full reading of this machine's interfaces, the owners of
// its tunnels, and the network services and primary interfaces that label
// them, as the status display shows them.
#include <unistd.h>

#include <string>

#include "command.h"
#include "configuration_report.h"
#include "interface_report.h"
#include "io.h"
#include "netcore/interfaces/interface_reader.h"
#include "support/json.h"

namespace netvane::cli {
namespace {

int run(const Arguments& arguments);

const Command command{
    "status",
    "netvane status [--json]",
    "every interface, the tunnel owners, the services and primaries",
    {},
    {kJsonOption},
    "Every interface with its flags, capabilities, media, addresses, IPv6 address flags, neighbour discovery "
    "options and 64-bit counters; the processes that own tunnel interfaces (root only: see netvane tunnels); "
    "the network services and the primary interfaces. Names from outside are shown with their control "
    "characters escaped.\n"
    "Exit status 0; 1 when the output fails.",
    run,
};

int run(const Arguments& arguments) {
    const std::vector<InterfaceSnapshot> snapshots = InterfaceReader().snapshot();
    const TunnelOwnerMap owners = TunnelOwners::scan();
    const NetworkMetadata configuration = SystemConfigurationReader::readServicesAndPrimaries();
    if (arguments.flag("--json")) {
        // Written out piece by piece: a reading of many interfaces makes
        // megabytes of text.
        constexpr std::size_t kPiece = 64 * 1024;
        JsonWriter out;
        out.beginObject();
        out.key("interfaces");
        out.beginArray();
        for (const InterfaceSnapshot& snapshot : snapshots) {
            writeSnapshot(out, snapshot);
            if (out.pending() >= kPiece) print(out.takePiece());
        }
        out.endArray();
        out.key("tunnelOwners");
        out.value(tunnelOwnersValue(owners));
        writeServicesAndPrimaries(out, configuration);
        out.endObject();
        print(out.take());
        return kExitOK;
    }
    if (snapshots.empty()) print("no interfaces\n");
    for (const InterfaceSnapshot& snapshot : snapshots) printSnapshot(snapshot);
    print("\ntunnel owners:\n");
    if (::geteuid() != 0) print("  (" + tunnelVisibilityNote() + ")\n");
    printTunnelOwners(owners);
    print("\n");
    printServices(configuration);
    printPrimaries(configuration);
    return kExitOK;
}

}  // namespace
}  // namespace netvane::cli
