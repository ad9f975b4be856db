// How the status, tunnels and watch commands show interface readings and
// tunnel owners, as text and as JSON (a reading is written straight out: as
// a value tree first it cost more than the reading itself).
#pragma once

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

// As text for people, on standard output; names and paths from outside
// with their control characters escaped.
void printSnapshot(const InterfaceSnapshot& snapshot);
void printTunnelOwners(const TunnelOwnerMap& owners);
// Why a user other than root sees no tunnel owners.
std::string tunnelVisibilityNote();

}  // namespace netvane::cli
