// netvane services: the system's network configuration as the status display
// labels interfaces with it: services in the user's order, configurable
// interfaces, and the primary IPv4 and IPv6 interfaces.
#include <cstdio>
#include <string>

#include "command.h"
#include "configuration_report.h"
#include "interface_report.h"

namespace netvane::cli {
namespace {

int run(const Args& args);

const Command command("services", "netvane services [--json]",
                      "network services in order, configurable interfaces and the primary interfaces", run);

int run(const Args& args) {
    bool json = false;
    std::string problem;
    if (!parseJsonFlag(args, json, problem)) return usageError(command, problem);
    const NetworkMetadata metadata = SystemConfigurationReader::read();
    if (json) {
        JsonWriter out;
        writeMetadata(out, metadata);
        const std::string text = out.take();
        std::fwrite(text.data(), 1, text.size(), stdout);
        return kExitOK;
    }
    printServices(stdout, metadata);
    std::printf("\n");
    printInterfaces(stdout, metadata);
    std::printf("\n");
    printPrimaries(stdout, metadata);
    return kExitOK;
}

}  // namespace
}  // namespace netvane::cli
