// The CLI's command table, and the one way its commands read their arguments.
//
// Each command file registers its commands with static Command objects. A
// command's name is a path of words ("status", "history show"); main()
// dispatches on the longest name the arguments begin with. A command with a
// table of operands and options has its arguments parsed, its help written
// and (later) its shell completion generated from that table alone; one
// without (admin) reads its own arguments.
//
// The convention every command with a table follows:
// - options may stand anywhere before "--"; every word after it is an
//   operand, so "-- -x" names a file "-x";
// - a value follows its option as the next word, or after "=" for a long
//   option ("--count=3");
// - an option given twice is a usage error, like an unknown one;
// - "-" is an operand: standard input where a FILE is read, standard output
//   where one is written, and refused where a file is both (--history);
// - numbers are plain decimals ("2.5", "10"), parsed once, strictly (no
//   sign, exponent, space or hex), and held to the range the table gives,
//   which the message states; "-h" and "--help" before "--" print the help.
//
// Exit statuses shared by every command: 0 success, 1 failure (one line on
// stderr), 2 usage error. Commands that talk to the daemon add 3 for
// "daemon unreachable". Messages pass text from outside (names, paths, the
// system's error texts) through terminalText.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "support/date.h"
#include "support/result.h"

namespace netvane::cli {

inline constexpr int kExitOK = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitUnreachable = 3;

using Args = std::vector<std::string_view>;

// What an option's value (or an operand) is, which decides how it is parsed
// and what a completion offers for it.
enum class ValueKind {
    flag,        // no value
    text,        // any text but the empty one
    choice,      // one of Option::choices
    seconds,     // a decimal number of seconds, within the range
    count,       // a whole number, within the range
    time,        // ISO 8601 UTC ("2026-11-23T14:00:00Z"), within the range
    inputFile,   // a file to read; "-" is standard input
    outputFile,  // a file to write; "-" is standard output
    file,        // a file both read and written; "-" is refused
    directory,
};

struct Option {
    std::string_view name;   // "--interval", "-o"
    ValueKind kind = ValueKind::flag;
    std::string_view value;  // the value's name in usage lines: "SECONDS"
    std::string_view help;   // what it does; the help adds range and default
    // seconds, count, time (in seconds since the reference date): inclusive.
    double minimum = 0;
    double maximum = 0;
    std::optional<double> fallback;  // what an absent numeric option means
    std::string_view choices;        // choice: the words allowed, "|" between them

    static constexpr Option flag(std::string_view name, std::string_view help) {
        return {name, ValueKind::flag, {}, help, 0, 0, std::nullopt, {}};
    }
    // text, the file kinds, directory.
    static constexpr Option valued(std::string_view name, ValueKind kind, std::string_view value,
                                   std::string_view help) {
        return {name, kind, value, help, 0, 0, std::nullopt, {}};
    }
    // seconds, count, time.
    static constexpr Option ranged(std::string_view name, ValueKind kind, std::string_view value,
                                   std::string_view help, double minimum, double maximum,
                                   std::optional<double> fallback = std::nullopt) {
        return {name, kind, value, help, minimum, maximum, fallback, {}};
    }
    static constexpr Option choice(std::string_view name, std::string_view value, std::string_view help,
                                   std::string_view choices) {
        return {name, ValueKind::choice, value, help, 0, 0, std::nullopt, choices};
    }
};

// The option of every command that can answer in JSON.
inline constexpr Option kJsonOption = Option::flag(
    "--json", "one JSON document instead of text (valid UTF-8 whatever the names: ill-formed bytes become U+FFFD)");

struct Operand {
    std::string_view name;  // "FILE"
    ValueKind kind;
    std::string_view help;
};

class Arguments;

struct Command {
    std::string_view name;
    std::string_view synopsis;  // one or more "netvane ..." lines, newline-separated
    std::string_view summary;   // one short line for `netvane --help`
    std::vector<Operand> operands;  // each required, in this order
    std::vector<Option> options;
    std::string description;  // paragraphs for --help: files, signals, exit status
    bool parsesItsOwnArguments = false;
    std::function<int(const Args&)> runRaw;
    std::function<int(const Arguments&)> run;

    // A command that reads its own arguments (after its name).
    Command(std::string_view name, std::string_view synopsis, std::string_view summary,
            std::function<int(const Args&)> run);
    // A command whose arguments the table describes.
    Command(std::string_view name, std::string_view synopsis, std::string_view summary, std::vector<Operand> operands,
            std::vector<Option> options, std::string description, std::function<int(const Arguments&)> run);

    const Option* option(std::string_view name) const;
};

// Every command, by name.
const std::vector<const Command*>& commands();

// A command's parsed arguments. Asking for an option the table does not
// have, or with the getter of another kind, is a programming error.
class Arguments {
public:
    bool flag(std::string_view option) const;
    // text, choice and the file kinds.
    std::optional<std::string> text(std::string_view option) const;
    // seconds and count: the value given, else the table's fallback.
    std::optional<double> seconds(std::string_view option) const;
    std::optional<std::uint64_t> count(std::string_view option) const;
    std::optional<Date> time(std::string_view option) const;
    bool has(std::string_view option) const { return values_.contains(option); }
    const std::vector<std::string>& operands() const { return operands_; }

private:
    friend Result<Arguments> parseArguments(const Command& command, const Args& args);
    using Value = std::variant<std::monostate, std::string, double, std::uint64_t, Date>;

    explicit Arguments(const Command& command) : command_(&command) {}
    const Value* find(std::string_view option, std::initializer_list<ValueKind> kinds) const;

    const Command* command_;
    std::map<std::string_view, Value, std::less<>> values_;
    std::vector<std::string> operands_;
};

// The arguments after the command's name, by its table; the usage problem
// as the error's message.
Result<Arguments> parseArguments(const Command& command, const Args& args);
// A number as the table's seconds are written: "12", "2.5", ".5", "5." and
// nothing else (no sign, exponent, space or hex); too many digits for a
// double reads as infinity, which is out of any range.
std::optional<double> parseDecimal(std::string_view text);
// Whether "-h" or "--help" stands before any "--".
bool wantsHelp(const Args& args);

// "netvane NAME: message" and the usage lines on stderr; kExitUsage.
int usageError(const Command& command, std::string_view message);
// "netvane: message" on stderr; kExitFailure.
int failure(std::string_view message);
// "netvane: note: message" on stderr.
void note(std::string_view message);

// The help of one command, of every command under a group ("history"), and
// of netvane itself; no line is wider than 79 columns but what a command
// that reads its own arguments wrote.
std::string helpText(const Command& command);
std::string groupHelpText(std::string_view group);
std::string topLevelHelpText();

// The ways a long-running command can be ended that a program can catch
// (Ctrl-C, SIGTERM, a closed terminal's SIGHUP, SIGQUIT, SIGALRM, the user
// signals, CPU and timer limits) only raise a flag that interrupted()
// reports, and cut a sleep or a blocked write short. (A write to a closed
// pipe fails with EPIPE rather than killing any command: main ignores
// SIGPIPE.) Install before a terminal library is started, so that it leaves
// these signals to us.
void stopOnEndingSignals();
bool interrupted();
// Seconds on the monotonic clock, which paces the live commands' readings.
double monotonicSeconds();

}  // namespace netvane::cli
