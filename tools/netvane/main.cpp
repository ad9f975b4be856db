// netvane: the command-line front end of the network-status application and
// of the admin helper's clients.
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>

#include "command.h"
#include "io.h"
#include "support/bundle_info.h"
#include "support/unicode.h"

using namespace netvane;

namespace {

// The command the arguments name: the longest whose words they begin with.
const cli::Command* findCommand(int argc, char** argv, int& words) {
    const cli::Command* found = nullptr;
    for (const cli::Command* command : cli::commands()) {
        std::string_view rest = command->name;
        int used = 1;
        bool matches = true;
        while (matches && !rest.empty()) {
            const std::size_t space = rest.find(' ');
            matches = used < argc && rest.substr(0, space) == argv[used];
            rest = space == std::string_view::npos ? std::string_view{} : rest.substr(space + 1);
            ++used;
        }
        if (matches && (found == nullptr || used > words)) {
            found = command;
            words = used;
        }
    }
    return found;
}

bool isGroup(std::string_view name) {
    return std::any_of(cli::commands().begin(), cli::commands().end(), [&](const cli::Command* command) {
        return command->name.starts_with(std::string(name) + " ");
    });
}

int run(int argc, char** argv) {
    if (argc < 2) {
        std::fputs(cli::topLevelHelpText().c_str(), stderr);
        return cli::kExitUsage;
    }
    const std::string_view first = argv[1];
    if (first == "--help" || first == "-h" || first == "help") {
        cli::print(cli::topLevelHelpText());
        return cli::kExitOK;
    }
    if (first == "--version") {
        cli::print("netvane " + bundleString(mainBundleInfo(), "CFBundleShortVersionString", "0") + "\n");
        return cli::kExitOK;
    }
    int words = 0;
    const cli::Command* command = findCommand(argc, argv, words);
    if (command == nullptr) {
        if (isGroup(first)) {
            const cli::Args rest(argv + 2, argv + argc);
            if (cli::wantsHelp(rest)) {
                cli::print(cli::groupHelpText(first));
                return cli::kExitOK;
            }
            std::fprintf(stderr, "netvane %s: %s\n%s", argv[1],
                         rest.empty() ? "missing command" : ("unknown command '" + terminalText(rest[0]) + "'").c_str(),
                         cli::groupHelpText(first).c_str());
            return cli::kExitUsage;
        }
        cli::failure("unknown command '" + std::string(first) + "'; 'netvane --help' lists them");
        return cli::kExitUsage;
    }
    const cli::Args args(argv + words, argv + argc);
    if (cli::wantsHelp(args)) {
        cli::print(cli::helpText(*command));
        return cli::kExitOK;
    }
    if (command->parsesItsOwnArguments) return command->runRaw(args);
    auto parsed = cli::parseArguments(*command, args);
    if (!parsed) return cli::usageError(*command, parsed.error().message);
    return command->run(*parsed);
}

}  // namespace

int main(int argc, char** argv) {
    // A reader that went away, or a file-size limit, is an error of the
    // write it stops, which the output layer handles, not a reason to die.
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGXFSZ, SIG_IGN);
    return cli::finishOutput(run(argc, argv));
}
