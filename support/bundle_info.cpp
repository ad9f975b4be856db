#include "support/bundle_info.h"

#include <cstdint>

#include "support/plist/plist.h"

// Defined by the program's generated Info.plist source; weak so that binaries
// without one (most tests) still link and see an empty dictionary.
extern "C" {
extern const unsigned char netvane_info_plist[] __attribute__((weak));
extern const std::size_t netvane_info_plist_size __attribute__((weak));
}

namespace netvane {

const plist::Dictionary& mainBundleInfo() {
    static const plist::Dictionary info = [] {
        if (&netvane_info_plist_size == nullptr || netvane_info_plist == nullptr) return plist::Dictionary{};
        std::span<const std::uint8_t> bytes(netvane_info_plist, netvane_info_plist_size);
        auto decoded = plist::decode(bytes);
        if (!decoded.ok() || !decoded->dictionary()) return plist::Dictionary{};
        return *decoded->dictionary();
    }();
    return info;
}

std::string bundleString(const plist::Dictionary& info, std::string_view key, std::string_view fallback) {
    const plist::Value* value = info.find(key);
    const std::string* text = value ? value->string() : nullptr;
    return text ? *text : std::string(fallback);
}

}  // namespace netvane
