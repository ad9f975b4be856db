// The CLI's command table. Each command file registers one top-level command
// with a static Command object; main() dispatches on the first argument.
//
// Exit statuses shared by every command: 0 success, 1 failure (a one-line
// message on stderr), 2 usage error. Commands that talk to the daemon add 3
// for "daemon unreachable".
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace netvane::cli {

inline constexpr int kExitOK = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitUnreachable = 3;

using Args = std::vector<std::string_view>;

struct Command {
    std::string_view name;
    std::string_view synopsis;  // one or more "netvane ..." lines, newline-separated
    std::string_view summary;   // one line for `netvane --help`
    std::function<int(const Args&)> run;  // receives the arguments after the name

    Command(std::string_view name, std::string_view synopsis, std::string_view summary,
            std::function<int(const Args&)> run);
};

const std::vector<const Command*>& commands();

// Prints "netvane: <message>" to stderr and returns kExitUsage.
int usageError(const Command& command, std::string_view message);
// Prints "netvane: <message>" to stderr and returns kExitFailure.
int failure(std::string_view message);
bool wantsHelp(const Args& args);
// A finite number of seconds greater than zero, written in full ("2.5").
std::optional<double> parsePositiveSeconds(std::string_view text);
// A whole number greater than zero, in decimal digits only.
std::optional<std::uint64_t> parsePositiveCount(std::string_view text);
int printHelp(const Command& command);
// Ctrl-C and SIGTERM end a long-running command at its next look at
// interrupted(); sleeps in the main thread are cut short by them.
void stopOnInterrupt();
bool interrupted();
// Seconds on the monotonic clock, which paces the live commands' readings.
double monotonicSeconds();

}  // namespace netvane::cli
