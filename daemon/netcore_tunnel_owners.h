// The daemon's real tunnel-owner source: the library's tunnel-owner scan,
// listed by interface name. Stateless; safe from any thread.
#pragma once

#include "daemon/tunnel_owner_source.h"

namespace netvane {

class NetcoreTunnelOwners final : public TunnelOwnerSource {
public:
    std::vector<TunnelOwnerEntry> scan() override;
};

}  // namespace netvane
