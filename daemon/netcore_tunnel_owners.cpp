#include "daemon/netcore_tunnel_owners.h"

#include "netcore/sysconfig/tunnel_owners.h"

namespace netvane {

std::vector<TunnelOwnerEntry> NetcoreTunnelOwners::scan() {
    std::vector<TunnelOwnerEntry> entries;
    for (auto& [interface, owner] : TunnelOwners::scan()) {
        entries.push_back(TunnelOwnerEntry{interface, owner.pid, owner.name, owner.path});
    }
    return entries;
}

}  // namespace netvane
