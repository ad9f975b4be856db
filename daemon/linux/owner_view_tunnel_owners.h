// The daemon's tunnel-owner source on Linux: the library's tunnel-owner scan,
// with each owner's executable path and bundle read through that process's
// own view of the file system (its /proc entry's root), not the daemon's. A
// user in a mount namespace of their own thus names their tunnel from their
// own files, and cannot make the daemon read, as root, a file of the
// daemon's view that they could not read themselves.
//
// IMPORTANT: bundles belong to whoever owns the process. Reading one follows
// no symlink, opens nothing but a regular file, reads at most 1 MiB, and is
// bounded in time as a whole (lookup, open and reads together), on a thread
// of its own, so a stalled file system (a FUSE mount of theirs) holds the
// scan for a bounded time. Stateless apart from that; safe from any thread.
#pragma once

#include "daemon/tunnel_owner_source.h"

namespace netvane {

class OwnerViewTunnelOwners final : public TunnelOwnerSource {
public:
    std::vector<TunnelOwnerEntry> scan() override;
};

}  // namespace netvane
