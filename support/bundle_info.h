// The running program's own Info.plist, embedded at build time (see
// packaging/Info.plist.in). Programs and test binaries that embed none get
// an empty dictionary, so every lookup falls back to its default.
#pragma once

#include <string>
#include <string_view>

#include "support/plist/value.h"

namespace netvane {

// Parsed once, on first use; thread-safe.
const plist::Dictionary& mainBundleInfo();

// The string under `key`, or `fallback` when absent or not a string.
std::string bundleString(const plist::Dictionary& info, std::string_view key, std::string_view fallback);

}  // namespace netvane
