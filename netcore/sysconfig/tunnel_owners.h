// Which process owns each tunnel interface, and under what name to show it:
// the application a VPN client belongs to rather than the path of a helper
// deep inside it.
//
// A pure function of the live system: no state between calls, nothing
// reported (an unreadable process list gives no owners, an unreadable
// executable an owner with empty path and name). When several processes hold
// the same tunnel, the last one the shim reports wins. Stateless and
// synchronous; callable from any thread. Seeing other users' processes needs
// privileges, so the daemon is the usual caller.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>

#include "netcore/shim/nv_shim.h"
#include "support/plist/value.h"
#include "support/result.h"

namespace netvane {

struct TunnelOwner {
    std::int32_t pid = 0;
    std::string name;  // display name; empty when path is
    std::string path;  // executable as the kernel reports it; empty when unreadable

    bool operator==(const TunnelOwner&) const = default;

    // {"pid", "name", "path"}, in that order; decoding ignores other keys.
    plist::Value encode() const;
    static Result<TunnelOwner> decode(const plist::Value& value);
};

// The information dictionary of the bundle at a path, or nothing when there
// is no bundle or it cannot be read.
class BundleInformation {
public:
    virtual ~BundleInformation() = default;
    virtual std::optional<plist::Dictionary> infoDictionary(const std::string& bundlePath) const = 0;
};

// This platform's bundles, read from disk; shared, stateless.
const BundleInformation& systemBundleInformation();

// Interface name -> owner. The order carries no meaning.
using TunnelOwnerMap = std::map<std::string, TunnelOwner>;

struct TunnelOwners {
    // The shim's capacity: at most this many socket/owner pairs are considered.
    static constexpr int kCapacity = 512;

    static TunnelOwnerMap scan();

    // The scan's second half, over records already read.
    using PathReader = std::function<std::string(std::int32_t pid)>;
    static TunnelOwnerMap fromRecords(std::span<const nv_utun_owner_t> records, const PathReader& executablePath,
                                      const BundleInformation& bundles);

    // The friendliest name for an executable: system programs by file name;
    // otherwise the outermost ".app" on the path, or failing that the
    // innermost bundle of any kind, by its display name, its name, or its
    // file name without the extension.
    static std::string displayName(const std::string& path, const BundleInformation& bundles);
};

// The interface of a numbered tunnel's kernel-control unit: "utun" and the
// decimal of unit - 1 (unit 1 is utun0). The shim never reports unit 0; it
// stops the process as a broken invariant.
std::string utunInterfaceName(std::uint32_t unit);

// Per platform: the interface a shim record names, and a process's
// executable path ("" when it cannot be read).
std::string tunnelInterfaceName(const nv_utun_owner_t& record);
std::string executablePath(std::int32_t pid);

}  // namespace netvane
