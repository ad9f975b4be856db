// Another team's program that speaks to the bus with the bus library itself
// and reads the network configuration with NetCore, directly and through a
// plugin made from NetCore's archive. Both must reach the library's own
// functions: NetCore brings no definition of them.
#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdio>

#include "netcore/sysconfig/system_configuration_reader.h"

extern "C" int pluginInterfaceCount();

int main() {
    sd_bus* bus = nullptr;
    int created = sd_bus_new(&bus);
    if (created >= 0) created = sd_bus_set_address(bus, "unix:path=/nonexistent/netvane-consumer-bus");
    const int started = created >= 0 ? sd_bus_start(bus) : created;
    sd_bus_flush_close_unref(bus);

    const auto configuration = netvane::SystemConfigurationReader::read();
    const int viaPlugin = pluginInterfaceCount();
    std::printf("own bus %d\ninterfaces %zu\nplugin interfaces %d\n", started, configuration.interfaces.size(),
                viaPlugin);
    // The library's own refusal of an address that leads nowhere, not a stand-in's.
    return created >= 0 && started < 0 && started != -ELIBACC && viaPlugin >= 0 ? 0 : 1;
}
