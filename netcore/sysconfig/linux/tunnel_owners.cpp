// Linux tunnel records carry the interface's name; executables are read from
// /proc; bundles are directories holding Contents/Info.plist (or a flat
// Info.plist), read with our own property-list codec and never through a
// symlink.
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "netcore/sysconfig/tunnel_owners.h"
#include "support/files.h"
#include "support/plist/plist.h"
#include "support/unicode.h"

namespace netvane {
namespace {

// The kernel's limit on a path; an executable path never exceeds it.
constexpr std::size_t kPathBufferSize = 4096;
// No information dictionary comes near this; a larger file is not one.
constexpr std::size_t kMaxInfoPlistSize = 1 << 20;
// A local file of that size reads in microseconds; one on a stalled or
// hostile filesystem must not hold the scan (and a daemon thread) for long.
constexpr std::chrono::milliseconds kInfoPlistReadLimit{500};

class InfoPlistBundles final : public BundleInformation {
public:
    std::optional<plist::Dictionary> infoDictionary(const std::string& bundlePath) const override {
        for (const char* inside : {"/Contents/Info.plist", "/Info.plist"}) {
            // IMPORTANT: bundles belong to whoever owns the executable, and
            // the daemon scans as root: never follow their symlinks, never
            // open their FIFOs or devices.
            auto bytes = readUntrustedFile(bundlePath + inside, kMaxInfoPlistSize, kInfoPlistReadLimit);
            if (!bytes) continue;
            auto value = plist::decode(*bytes);
            if (!value || value->dictionary() == nullptr) return std::nullopt;
            return *value->dictionary();
        }
        return std::nullopt;
    }
};

}  // namespace

const BundleInformation& systemBundleInformation() {
    static const InfoPlistBundles bundles;
    return bundles;
}

std::string tunnelInterfaceName(const nv_utun_owner_t& record) {
    if (record.unit == 0) std::abort();  // the shim never reports unit 0
    return std::string(record.ifname, ::strnlen(record.ifname, sizeof record.ifname));
}

std::string executablePath(std::int32_t pid) {
    std::array<char, kPathBufferSize> path{};
    std::string link = "/proc/" + std::to_string(pid) + "/exe";
    ssize_t length = ::readlink(link.c_str(), path.data(), path.size() - 1);
    if (length < 1) return "";
    return decodeCString(path);
}

}  // namespace netvane
