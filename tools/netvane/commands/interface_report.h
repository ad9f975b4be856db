// How the status, tunnels and watch commands show interface readings and
// tunnel owners, as text and as JSON (a reading is written straight out: as
// a value tree first it cost more than the reading itself).
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "netcore/interfaces/interface_snapshot.h"
#include "netcore/sysconfig/tunnel_owners.h"
#include "support/json.h"
#include "support/plist/value.h"

namespace netvane::cli {

std::string functionalTypeName(FunctionalType type);

void writeSnapshot(JsonWriter& json, const InterfaceSnapshot& snapshot);
// An optional text under its key; nothing at all when absent.
void writeIfPresent(JsonWriter& json, const char* key, const std::optional<std::string>& value);
plist::Value tunnelOwnersValue(const TunnelOwnerMap& owners);

void printSnapshot(std::FILE* out, const InterfaceSnapshot& snapshot);
void printTunnelOwners(std::FILE* out, const TunnelOwnerMap& owners);

// Options that are only a flag: --json.
bool parseJsonFlag(const std::vector<std::string_view>& args, bool& json, std::string& problem);

}  // namespace netvane::cli
