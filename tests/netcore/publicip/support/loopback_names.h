// Test names for the loopback addresses, answered without the system's
// resolver (whose hosts file may not list ::1 under any name):
// "dual.test" has 127.0.0.1 and ::1, "v4.test" only 127.0.0.1, "v6.test" only ::1.
#pragma once

#include "netcore/publicip/linux/byte_stream.h"

namespace netvane::testing {

AddressResolver loopbackResolver();

}  // namespace netvane::testing
