// The tunnel-owner seam: which processes own the tunnel interfaces, in the
// scan's own order. The daemon's real source adapts the library's tunnel-owner
// scan; tests use a fake. Called outside the daemon's lock, from any thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace netvane {

struct TunnelOwnerEntry {
    std::string interface;
    pid_t pid = 0;
    std::string name;
    std::string path;

    bool operator==(const TunnelOwnerEntry&) const = default;
};

class TunnelOwnerSource {
public:
    virtual ~TunnelOwnerSource() = default;
    virtual std::vector<TunnelOwnerEntry> scan() = 0;
};

}  // namespace netvane
