// Maps saved pins onto the interfaces that exist now. A pin resolves exactly
// by key where it can; otherwise by a cautious fallback over address, title
// and name that never hands one live interface to two pins and never
// resolves an ambiguous title by position. Pure functions on values.
#pragma once

#include <optional>
#include <vector>

#include "netcore/sysconfig/interface_fingerprint.h"

namespace netvane::PinMatcher {

// Element i is the live interface that pins[i] resolves to, or none.
std::vector<std::optional<InterfaceFingerprint>> resolve(const std::vector<InterfaceFingerprint>& pins,
                                                         const std::vector<InterfaceFingerprint>& live);

}  // namespace netvane::PinMatcher
