// Linux socket addresses carry no length byte, and the kernel's interface
// flags use other bits than the shared names for some flags.
#include "netcore/interfaces/platform_address_list.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include "netcore/shim/linux/nv_linux.h"

namespace netvane {

std::size_t netmaskLength(const sockaddr* /*netmask*/, int family) {
    return family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

std::uint32_t interfaceFlagsFromEntry(unsigned int entryFlags) { return nv_linux_interface_flags(entryFlags); }

}  // namespace netvane
