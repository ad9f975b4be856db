// The daemon's command line, one parser for every platform's main: each
// platform says which options it has, and gets them back checked, or the
// reason they are not usable (a usage error: exit 2 with the usage).
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "support/result.h"

namespace netvane {

struct DaemonOptions {
    std::string stateDirectory;
    std::string runtimeDirectory;  // only where the platform has one
    bool foreground = false;
    bool help = false;  // --help or -h: print the usage, nothing else

    bool operator==(const DaemonOptions&) const = default;
};

struct DaemonOptionDefaults {
    std::string stateDirectory;
    // Empty: this platform takes no --runtime-dir.
    std::string runtimeDirectory;
};

// `args` without the program name. "--state-dir DIR" and "--state-dir=DIR"
// alike; an option given twice, an empty directory, an unknown option or a
// stray operand is an error whose text says which.
Result<DaemonOptions> parseDaemonOptions(std::span<const char* const> args, const DaemonOptionDefaults& defaults);

}  // namespace netvane
