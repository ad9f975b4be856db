// netvane services: the system's network configuration as the status display
// labels interfaces with it: services in the user's order, configurable
// interfaces, and the primary IPv4 and IPv6 interfaces.
#include <string>

#include "command.h"
#include "configuration_report.h"
#include "interface_report.h"
#include "io.h"

namespace netvane::cli {
namespace {

int run(const Arguments& arguments);

const Command command{
    "services",
    "netvane services [--json]",
    "network services, configurable interfaces and the primaries",
    {},
    {kJsonOption},
    "The services in the user's order (id, name, enabled, interface, hidden), the configurable interfaces "
    "(name, display name, type, hardware address), and the primary IPv4 and IPv6 interfaces, those the "
    "kernel's route choice sends the world's traffic through. Without NetworkManager there are no services.\n"
    "Exit status 0; 1 when the output fails.",
    run,
};

int run(const Arguments& arguments) {
    const NetworkMetadata metadata = SystemConfigurationReader::read();
    if (arguments.flag("--json")) {
        JsonWriter out;
        writeMetadata(out, metadata);
        print(out.take());
        return kExitOK;
    }
    printServices(metadata);
    print("\n");
    printInterfaces(metadata);
    print("\n");
    printPrimaries(metadata);
    return kExitOK;
}

}  // namespace
}  // namespace netvane::cli
