// The bus library, loaded when a bus is first opened rather than linked.
//
// Linking it would load it, and its chain of capability, crypto and
// compression libraries, at every start of every program (over a
// millisecond of wall time and as much CPU), while most commands never touch
// the bus. So bus_library.cpp defines each sd-bus function the code base
// calls, with the header's own prototype, forwarding to the library's once it
// is loaded. Call sites are unchanged.
//
// When the library cannot be loaded, functions that open or create a bus
// return -ELIBACC and busLibraryFailure() says why; functions on objects that
// cannot exist then do nothing (unref returns null, free does nothing).
#pragma once

#include <memory>
#include <string>

#include "support/result.h"

namespace netvane::bus {

inline constexpr const char* kBusLibraryName = "libsystemd.so.0";

// Why the process's bus library is unusable ("cannot load libsystemd.so.0:
// ..."), or empty once it has loaded. Loads it on the first call.
std::string busLibraryFailure();

// The text for a negative errno that an sd-bus function returned: the
// loader's reason for -ELIBACC when loading failed, the errno's otherwise.
std::string describeBusResult(int negativeErrno);

// One library's resolved functions. The process uses the one loadBusLibrary
// gives for kBusLibraryName, loaded once and kept for the process's life;
// taking the name lets a test ask for a library that is not there.
struct BusFunctions;
Result<std::shared_ptr<const BusFunctions>> loadBusLibrary(const char* name);

}  // namespace netvane::bus
