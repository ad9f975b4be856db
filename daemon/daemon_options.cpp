#include "daemon/daemon_options.h"

#include <set>

namespace netvane {
namespace {

Error usage(std::string message) { return Error{"netvane.daemon.usage", 1, std::move(message)}; }

}  // namespace

Result<DaemonOptions> parseDaemonOptions(std::span<const char* const> args, const DaemonOptionDefaults& defaults) {
    DaemonOptions options{defaults.stateDirectory, defaults.runtimeDirectory, false, false};
    std::set<std::string_view> seen;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string_view arg = args[i];
        const std::string_view name = arg.substr(0, arg.find('='));
        std::string* directory = nullptr;
        if (name == "--state-dir") directory = &options.stateDirectory;
        if (name == "--runtime-dir" && !defaults.runtimeDirectory.empty()) directory = &options.runtimeDirectory;
        if (arg == "--help" || arg == "-h") {
            options.help = true;
            continue;
        }
        if (arg != "--foreground" && !directory) {
            return usage(arg.starts_with("-") ? "unknown option: " + std::string(arg)
                                              : "unexpected operand: " + std::string(arg));
        }
        if (!seen.insert(name).second) return usage(std::string(name) + " is given twice");
        if (arg == "--foreground") {
            options.foreground = true;
            continue;
        }
        std::string_view value;
        if (name.size() < arg.size()) {
            value = arg.substr(name.size() + 1);
        } else if (i + 1 < args.size()) {
            value = args[++i];
        } else {
            return usage(std::string(name) + " needs a directory");
        }
        if (value.empty()) return usage(std::string(name) + " needs a directory, not an empty text");
        *directory = std::string(value);
    }
    return options;
}

}  // namespace netvane
