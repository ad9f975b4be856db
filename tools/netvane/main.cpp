// netvane: the command-line front end of the network-status application and
// of the admin helper's clients.
#include <cstdio>
#include <string_view>

#include "command.h"
#include "support/bundle_info.h"

using namespace netvane;

namespace {

int printUsage(std::FILE* out) {
    std::fprintf(out,
                 "usage: netvane COMMAND [ARGS...]\n"
                 "       netvane COMMAND --help\n\n"
                 "commands:\n");
    for (const cli::Command* command : cli::commands()) {
        std::fprintf(out, "  %-12.*s %.*s\n", static_cast<int>(command->name.size()), command->name.data(),
                     static_cast<int>(command->summary.size()), command->summary.data());
    }
    return out == stdout ? cli::kExitOK : cli::kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return printUsage(stderr);
    const std::string_view name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") return printUsage(stdout);
    if (name == "--version") {
        std::printf("netvane %s\n", bundleString(mainBundleInfo(), "CFBundleShortVersionString", "0").c_str());
        return cli::kExitOK;
    }
    for (const cli::Command* command : cli::commands()) {
        if (command->name != name) continue;
        const cli::Args args(argv + 2, argv + argc);
        if (cli::wantsHelp(args)) return cli::printHelp(*command);
        return command->run(args);
    }
    std::fprintf(stderr, "netvane: unknown command '%s'\n", argv[1]);
    return printUsage(stderr);
}
