// Identifiers, service names and code-signing requirement texts that the
// daemon and its clients must agree on. The team identifier comes from the
// running program's embedded Info.plist; everything derived from it is
// computed once, on first use, and is safe to read from any thread.
#pragma once

#include <string>
#include <string_view>

#include "support/plist/value.h"

namespace netvane::AdminConstants {

inline constexpr std::string_view kFallbackTeamID = "TEAMID0000";
inline constexpr std::string_view appBundleID = "com.tarnwick.Netvane";
inline constexpr std::string_view adminAppBundleID = "com.tarnwick.Netvane.Admin";
inline constexpr std::string_view daemonIdentifier = "com.tarnwick.Netvane.admin";
inline constexpr std::string_view daemonLabel = "com.tarnwick.Netvane.admin";
inline constexpr std::string_view pairRight = "com.tarnwick.Netvane.admin.pair";
inline constexpr int protocolVersion = 1;

const std::string& daemonPlistPath();
const std::string& teamID();
const std::string& appGroup();
const std::string& appServiceName();
const std::string& controlServiceName();

std::string appRequirement(std::string_view teamID);
std::string adminAppRequirement(std::string_view teamID);

// The pure rules behind the lazily computed members, for any Info.plist.
std::string teamIDFromInfo(const plist::Dictionary& info);
std::string appGroupFor(std::string_view teamID);

}  // namespace netvane::AdminConstants
