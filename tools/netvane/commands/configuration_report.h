// How the services, status and watch commands show the system's network
// configuration: as JSON whose keys are the records' field names (absent
// optionals left out), and as text for people.
#pragma once

#include <string>
#include <vector>

#include "netcore/sysconfig/system_configuration_reader.h"
#include "support/json.h"

namespace netvane::cli {

// "interfaces" (by BSD name), "services", then the two primaries.
void writeMetadata(JsonWriter& json, const NetworkMetadata& metadata);
// Only "services" and the two primaries, for readings that list interfaces already.
void writeServicesAndPrimaries(JsonWriter& json, const NetworkMetadata& metadata);

// As text on standard output, with control characters escaped.
void printServices(const NetworkMetadata& metadata);
void printInterfaces(const NetworkMetadata& metadata);
void printPrimaries(const NetworkMetadata& metadata);

}  // namespace netvane::cli
