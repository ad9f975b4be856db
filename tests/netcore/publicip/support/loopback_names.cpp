#include "tests/netcore/publicip/support/loopback_names.h"

#include <netdb.h>

namespace netvane::testing {

AddressResolver loopbackResolver() {
    return [](const std::string& host, std::uint16_t port, IPVersion version) -> Result<std::vector<SocketAddress>> {
        const bool v4 = version == IPVersion::v4;
        const bool known = (host == "dual.test") || (host == "v4.test" && v4) || (host == "v6.test" && !v4);
        if (!known) return Error{kAddressInfoErrorDomain, EAI_NONAME, "Name or service not known"};
        return std::vector<SocketAddress>{*literalAddress(v4 ? "127.0.0.1" : "::1", port, version)};
    };
}

}  // namespace netvane::testing
