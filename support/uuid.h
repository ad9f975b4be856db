// Random (version 4) UUIDs in canonical upper-case text form,
// "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
#pragma once

#include <string>

#include "support/result.h"

namespace netvane {

Result<std::string> makeUUIDString();

}  // namespace netvane
