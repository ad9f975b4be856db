// The one privileged change the daemon makes to the system: enabling or
// disabling a network service in the network preferences, then committing and
// applying it. Services the system marks as hidden are treated as absent.
//
// Runs outside the daemon's lock, from any thread; concurrent calls serialise
// on the preferences' own lock, which is released on every path once taken.
// Fails with unknownService for an absent, hidden or implausibly named
// service and with configurationFailed for everything the preferences refuse,
// including a daemon built without a preferences backend (null
// `preferences`). The preferences' own reason, for the log, goes to `reason`.
#pragma once

#include <string>

#include "netcore/sysconfig/network_preferences.h"
#include "support/result.h"

namespace netvane::ServiceConfigurator {

Status setEnabled(NetworkPreferences* preferences, const std::string& serviceID, bool enabled,
                  std::string* reason = nullptr);

}  // namespace netvane::ServiceConfigurator
