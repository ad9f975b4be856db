// Another team's program, built against an installed NetCore through its
// public headers only: reads the interfaces and the network configuration,
// keeps a rate history, scans for tunnel owners and asks a public-IP echo
// service that is not there.
#include <chrono>
#include <cstdio>

#include "netcore/history/rate_history.h"
#include "netcore/interfaces/interface_reader.h"
#include "netcore/publicip/public_ip.h"
#include "netcore/sysconfig/system_configuration_reader.h"
#include "netcore/sysconfig/tunnel_owners.h"

int main() {
    using namespace netvane;
    bool loopback = false;
    for (const InterfaceSnapshot& interface : InterfaceReader().snapshot()) loopback = loopback || interface.name == "lo";

    RateHistory history(RateHistory::Retention{3600, 7 * 86400, 90 * 86400});
    const Date now = Date::now();
    history.add(RateSample{now, 2, 2000, 1000});
    const RateAggregate total = history.aggregate(60, now);

    const TunnelOwnerMap owners = TunnelOwners::scan();
    // Loopback is never a configurable interface, whatever else this machine has.
    const NetworkMetadata configuration = SystemConfigurationReader::read();
    const bool loopbackConfigurable = configuration.interfaces.contains("lo");

    // Port 1 on loopback refuses at once; the answer is the lookup's error.
    PublicIPService::LookupOptions options;
    options.timeout = std::chrono::milliseconds(2000);
    const PublicIPResult lookup = PublicIPService::lookup("http://127.0.0.1:1/ip", std::nullopt, options);

    std::printf("loopback %s\nbytes in %llu\ntunnels %zu\nlookup %s\n", loopback ? "yes" : "no",
                static_cast<unsigned long long>(total.bytesIn), owners.size(),
                lookup.error ? "failed" : "answered");
    return loopback && !loopbackConfigurable && total.bytesIn == 2000 && lookup.error ? 0 : 1;
}
