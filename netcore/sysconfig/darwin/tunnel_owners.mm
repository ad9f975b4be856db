// macOS tunnel records name utun interfaces by kernel-control unit;
// executables come from the process table; bundles are opened by the system's
// bundle API, which finds the information dictionary wherever that kind of
// bundle keeps it.
#include <CoreFoundation/CoreFoundation.h>
#include <Foundation/Foundation.h>
#include <libproc.h>
#include <sys/proc_info.h>

#include <array>

#include "netcore/sysconfig/tunnel_owners.h"
#include "support/darwin/foundation_values.h"
#include "support/unicode.h"

namespace netvane {
namespace {

class SystemBundles final : public BundleInformation {
public:
    std::optional<plist::Dictionary> infoDictionary(const std::string& bundlePath) const override {
        @autoreleasepool {
            NSURL* url = [NSURL fileURLWithFileSystemRepresentation:bundlePath.c_str()
                                                        isDirectory:YES
                                                      relativeToURL:nil];
            id bundle = CFBridgingRelease(CFBundleCreate(kCFAllocatorDefault, (__bridge CFURLRef)url));
            if (bundle == nil) return std::nullopt;
            // Owned by the bundle, which outlives its use here.
            CFDictionaryRef info = CFBundleGetInfoDictionary((__bridge CFBundleRef)bundle);
            std::optional<plist::Value> value = fromFoundation((__bridge NSDictionary*)info);
            if (!value || value->dictionary() == nullptr) return std::nullopt;
            return std::move(*value->get<plist::Dictionary>());
        }
    }
};

}  // namespace

const BundleInformation& systemBundleInformation() {
    static const SystemBundles bundles;
    return bundles;
}

std::string tunnelInterfaceName(const nv_utun_owner_t& record) { return utunInterfaceName(record.unit); }

std::string executablePath(std::int32_t pid) {
    std::array<char, PROC_PIDPATHINFO_MAXSIZE> path{};
    if (proc_pidpath(pid, path.data(), static_cast<std::uint32_t>(path.size())) < 1) return "";
    return decodeCString(path);
}

}  // namespace netvane
