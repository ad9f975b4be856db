#include "command.h"

#include <signal.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <locale>
#include <sstream>

#include "support/unicode.h"

namespace netvane::cli {
namespace {

volatile sig_atomic_t interruptReceived = 0;

extern "C" void noteInterrupt(int) { interruptReceived = 1; }

std::vector<const Command*>& registry() {
    static std::vector<const Command*> all;
    return all;
}

void enroll(const Command* command) {
    auto& all = registry();
    all.insert(std::upper_bound(all.begin(), all.end(), command,
                                [](const Command* a, const Command* b) { return a->name < b->name; }),
               command);
}

[[noreturn]] void programmingError(std::string_view what, std::string_view option) {
    std::fprintf(stderr, "netvane: fatal: %.*s %.*s\n", static_cast<int>(what.size()), what.data(),
                 static_cast<int>(option.size()), option.data());
    std::abort();
}

Error usage(std::string message) { return Error{"netvane.usage", kExitUsage, std::move(message)}; }

// Whole numbers print in full, others as briefly as they read back.
std::string number(double value) {
    char text[64];
    if (value == std::floor(value) && std::fabs(value) < 1e15) {
        std::snprintf(text, sizeof text, "%.0f", value);
    } else {
        std::snprintf(text, sizeof text, "%g", value);
    }
    return text;
}

std::string range(const Option& option) {
    if (option.kind == ValueKind::time) {
        return formatISO8601(Date{option.minimum}) + " to " + formatISO8601(Date{option.maximum});
    }
    return number(option.minimum) + " to " + number(option.maximum);
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

std::optional<double> parseDecimal(std::string_view text) {
    const std::size_t point = text.find('.');
    const std::string_view whole = text.substr(0, point);
    const std::string_view fraction = point == std::string_view::npos ? std::string_view{} : text.substr(point + 1);
    if (whole.empty() && fraction.empty()) return std::nullopt;
    if (!std::all_of(whole.begin(), whole.end(), isDigit) || !std::all_of(fraction.begin(), fraction.end(), isDigit)) {
        return std::nullopt;
    }
    // The classic locale: a point is the decimal point whatever LC_NUMERIC says.
    std::istringstream in{std::string(text)};
    in.imbue(std::locale::classic());
    double value = 0;
    in >> value;
    // Too many digits for a double reads as a failure; it is out of any range.
    if (in.fail()) return HUGE_VAL;
    return value;
}

namespace {

std::optional<std::uint64_t> parseWhole(std::string_view text) {
    if (text.empty() || !std::all_of(text.begin(), text.end(), isDigit)) return std::nullopt;
    std::uint64_t value = 0;
    for (const char c : text) {
        const auto digit = static_cast<std::uint64_t>(c - '0');
        if (value > (UINT64_MAX - digit) / 10) return UINT64_MAX;
        value = value * 10 + digit;
    }
    return value;
}

const char* whatItNeeds(ValueKind kind) {
    switch (kind) {
        case ValueKind::seconds: return "a number of seconds";
        case ValueKind::count: return "a whole number";
        case ValueKind::time: return "an ISO 8601 UTC time such as 2026-11-23T14:00:00Z";
        case ValueKind::inputFile:
        case ValueKind::outputFile:
        case ValueKind::file: return "a file";
        case ValueKind::directory: return "a directory";
        case ValueKind::choice: return "one of";
        case ValueKind::text:
        case ValueKind::flag: break;
    }
    return "a value";
}

using Value = std::variant<std::monostate, std::string, double, std::uint64_t, Date>;

// The value of `option` from `text`, or the usage problem.
Result<Value> parseValue(const Option& option, std::string_view text) {
    const std::string name(option.name);
    // Built by appending: GCC 12 misreads a literal prefixed to a temporary
    // as an overlapping copy (-Wrestrict).
    std::string given = "'";
    given.append(text).append("'");
    switch (option.kind) {
        case ValueKind::flag: return Value{};
        case ValueKind::seconds: {
            const auto value = parseDecimal(text);
            if (!value || !(*value >= option.minimum && *value <= option.maximum)) {
                return usage(name + " needs a number of seconds from " + range(option) + ", such as 2.5; not " + given);
            }
            return Value{*value};
        }
        case ValueKind::count: {
            const auto value = parseWhole(text);
            if (!value || static_cast<double>(*value) < option.minimum || static_cast<double>(*value) > option.maximum) {
                return usage(name + " needs a whole number from " + range(option) + "; not " + given);
            }
            return Value{*value};
        }
        case ValueKind::time: {
            const auto value = parseISO8601(text);
            if (!value || !(value->secondsSinceReference >= option.minimum &&
                            value->secondsSinceReference <= option.maximum)) {
                return usage(name + " needs " + whatItNeeds(option.kind) + ", from " + range(option) + "; not " + given);
            }
            return Value{*value};
        }
        case ValueKind::choice: {
            std::string_view rest = option.choices;
            while (!rest.empty()) {
                const std::size_t bar = rest.find('|');
                if (rest.substr(0, bar) == text) return Value{std::string(text)};
                rest = bar == std::string_view::npos ? std::string_view{} : rest.substr(bar + 1);
            }
            std::string choices(option.choices);
            std::replace(choices.begin(), choices.end(), '|', ' ');
            return usage(name + " needs one of " + choices + "; not " + given);
        }
        case ValueKind::file:
            if (text == "-") {
                return usage(name + " needs a file; standard input and output cannot hold what it keeps");
            }
            [[fallthrough]];
        case ValueKind::text:
        case ValueKind::inputFile:
        case ValueKind::outputFile:
        case ValueKind::directory:
            if (text.empty()) return usage(name + " needs " + whatItNeeds(option.kind) + ", not an empty text");
            return Value{std::string(text)};
    }
    return usage(name + ": unknown kind");
}

// Breaks `text` into lines of at most `width` columns, each after `indent`
// spaces but the first, which follows what the caller wrote already.
std::string wrapped(std::string_view text, std::size_t indent, std::size_t width, std::size_t firstColumn) {
    std::string out;
    std::size_t column = firstColumn;
    bool lineStart = true;
    while (!text.empty()) {
        const std::size_t space = text.find(' ');
        const std::string_view word = text.substr(0, space);
        text = space == std::string_view::npos ? std::string_view{} : text.substr(space + 1);
        if (word.empty()) continue;
        if (!lineStart && column + 1 + word.size() > width) {
            out.append("\n").append(indent, ' ');
            column = indent;
            lineStart = true;
        }
        if (!lineStart) {
            out += ' ';
            ++column;
        }
        out += word;
        column += word.size();
        lineStart = false;
    }
    return out;
}

constexpr std::size_t kHelpWidth = 79;
constexpr std::size_t kHelpIndent = 22;

std::string helpEntry(const std::string& label, const std::string& text) {
    std::string line = "  " + label;
    if (line.size() + 2 > kHelpIndent) {
        line += "\n" + std::string(kHelpIndent, ' ');
    } else {
        line.resize(kHelpIndent, ' ');
    }
    return line + wrapped(text, kHelpIndent, kHelpWidth, kHelpIndent) + "\n";
}

std::string optionHelp(const Option& option) {
    std::string text(option.help);
    const bool ranged = option.kind == ValueKind::seconds || option.kind == ValueKind::count ||
                        option.kind == ValueKind::time;
    if (ranged) text += " (" + range(option);
    if (ranged && option.fallback) text += "; default " + number(*option.fallback);
    if (ranged) text += ")";
    if (option.kind == ValueKind::inputFile) text += " (- for standard input)";
    if (option.kind == ValueKind::outputFile) text += " (- for standard output)";
    return text;
}

// Paragraphs of prose, each wrapped, a blank line between them; lines that
// start with spaces (a table) are kept as they are and together.
std::string paragraphs(std::string_view text) {
    std::string out;
    bool previousIndented = true;
    while (!text.empty()) {
        const std::size_t end = text.find('\n');
        const std::string_view line = text.substr(0, end);
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
        const bool indented = line.starts_with(' ');
        if (!out.empty() && !(indented && previousIndented)) out += "\n";
        out += indented ? std::string(line) : wrapped(line, 0, kHelpWidth, 0);
        out += "\n";
        previousIndented = indented;
    }
    return out;
}

// The usage lines, indented: a synopsis line that starts with spaces
// continues the one before it. A command that reads its own arguments has
// its synopsis laid out already.
std::string usageLines(const Command& command) {
    std::string_view synopsis = command.synopsis;
    if (command.parsesItsOwnArguments) return std::string(synopsis) + (synopsis.ends_with('\n') ? "" : "\n");
    std::string out;
    while (!synopsis.empty()) {
        const std::size_t end = synopsis.find('\n');
        const std::string_view line = synopsis.substr(0, end);
        const std::size_t start = std::min(line.find_first_not_of(' '), line.size());
        out.append(start > 0 ? "    " : "  ").append(line.substr(start)).append("\n");
        synopsis = end == std::string_view::npos ? std::string_view{} : synopsis.substr(end + 1);
    }
    return out;
}

}  // namespace

Command::Command(std::string_view name, std::string_view synopsis, std::string_view summary,
                 std::function<int(const Args&)> run)
    : name(name), synopsis(synopsis), summary(summary), parsesItsOwnArguments(true), runRaw(std::move(run)) {
    enroll(this);
}

Command::Command(std::string_view name, std::string_view synopsis, std::string_view summary,
                 std::vector<Operand> operands, std::vector<Option> options, std::string description,
                 std::function<int(const Arguments&)> run)
    : name(name),
      synopsis(synopsis),
      summary(summary),
      operands(std::move(operands)),
      options(std::move(options)),
      description(std::move(description)),
      run(std::move(run)) {
    enroll(this);
}

const Option* Command::option(std::string_view optionName) const {
    for (const Option& candidate : options) {
        if (candidate.name == optionName) return &candidate;
    }
    return nullptr;
}

const std::vector<const Command*>& commands() { return registry(); }

const Arguments::Value* Arguments::find(std::string_view name, std::initializer_list<ValueKind> kinds) const {
    const Option* option = command_->option(name);
    if (option == nullptr) programmingError("no such option:", name);
    if (std::find(kinds.begin(), kinds.end(), option->kind) == kinds.end()) programmingError("wrong kind for", name);
    const auto found = values_.find(name);
    return found == values_.end() ? nullptr : &found->second;
}

bool Arguments::flag(std::string_view option) const { return find(option, {ValueKind::flag}) != nullptr; }

std::optional<std::string> Arguments::text(std::string_view option) const {
    const Value* value = find(option, {ValueKind::text, ValueKind::choice, ValueKind::inputFile, ValueKind::outputFile,
                                       ValueKind::file, ValueKind::directory});
    if (value == nullptr) return std::nullopt;
    return std::get<std::string>(*value);
}

std::optional<double> Arguments::seconds(std::string_view option) const {
    const Value* value = find(option, {ValueKind::seconds});
    if (value == nullptr) return command_->option(option)->fallback;
    return std::get<double>(*value);
}

std::optional<std::uint64_t> Arguments::count(std::string_view option) const {
    const Value* value = find(option, {ValueKind::count});
    if (value == nullptr) {
        const auto fallback = command_->option(option)->fallback;
        if (!fallback) return std::nullopt;
        return static_cast<std::uint64_t>(*fallback);
    }
    return std::get<std::uint64_t>(*value);
}

std::optional<Date> Arguments::time(std::string_view option) const {
    const Value* value = find(option, {ValueKind::time});
    if (value == nullptr) return std::nullopt;
    return std::get<Date>(*value);
}

Result<Arguments> parseArguments(const Command& command, const Args& args) {
    Arguments parsed(command);
    bool optionsEnded = false;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string_view word = args[i];
        const bool isOption = !optionsEnded && word.size() > 1 && word[0] == '-';
        if (!isOption) {
            if (parsed.operands_.size() == command.operands.size()) {
                return usage("unexpected argument '" + std::string(word) + "'");
            }
            if (word.empty()) return usage(std::string(command.operands[parsed.operands_.size()].name) + " is empty");
            parsed.operands_.emplace_back(word);
            continue;
        }
        if (word == "--") {
            optionsEnded = true;
            continue;
        }
        const std::size_t equals = word.starts_with("--") ? word.find('=') : std::string_view::npos;
        const std::string_view name = word.substr(0, equals);
        const Option* option = command.option(name);
        if (option == nullptr) return usage("unknown option '" + std::string(name) + "'");
        if (parsed.values_.contains(option->name)) return usage(std::string(name) + " is given more than once");
        std::string_view text;
        if (option->kind == ValueKind::flag) {
            if (equals != std::string_view::npos) return usage(std::string(name) + " takes no value");
        } else if (equals != std::string_view::npos) {
            text = word.substr(equals + 1);
        } else if (i + 1 < args.size()) {
            text = args[++i];
        } else {
            return usage(std::string(name) + " needs " + whatItNeeds(option->kind) + " after it");
        }
        auto value = parseValue(*option, text);
        if (!value) return value.error();
        parsed.values_.emplace(option->name, std::move(*value));
    }
    if (parsed.operands_.size() < command.operands.size()) {
        return usage("missing " + std::string(command.operands[parsed.operands_.size()].name));
    }
    return parsed;
}

bool wantsHelp(const Args& args) {
    for (const std::string_view arg : args) {
        if (arg == "--") return false;
        if (arg == "--help" || arg == "-h") return true;
    }
    return false;
}

int usageError(const Command& command, std::string_view message) {
    std::fprintf(stderr, "netvane %.*s: %s\nusage:\n%s(netvane %.*s --help says more)\n",
                 static_cast<int>(command.name.size()), command.name.data(), terminalText(message).c_str(),
                 usageLines(command).c_str(), static_cast<int>(command.name.size()), command.name.data());
    return kExitUsage;
}

int failure(std::string_view message) {
    std::fprintf(stderr, "netvane: %s\n", terminalText(message).c_str());
    return kExitFailure;
}

void note(std::string_view message) { std::fprintf(stderr, "netvane: note: %s\n", terminalText(message).c_str()); }

std::string helpText(const Command& command) {
    std::string text = wrapped("netvane " + std::string(command.name) + ": " + std::string(command.summary), 2,
                               kHelpWidth, 0);
    text.append("\n\nusage:\n").append(usageLines(command));
    if (!command.description.empty()) text.append("\n").append(paragraphs(command.description));
    if (!command.operands.empty()) {
        text += "\narguments:\n";
        for (const Operand& operand : command.operands) {
            std::string help(operand.help);
            if (operand.kind == ValueKind::inputFile) help += " (- for standard input)";
            text += helpEntry(std::string(operand.name), help);
        }
    }
    if (!command.parsesItsOwnArguments) {
        text += "\noptions:\n";
        for (const Option& option : command.options) {
            const std::string label = std::string(option.name) + (option.value.empty() ? "" : " ") +
                                      std::string(option.value);
            text += helpEntry(label, optionHelp(option));
        }
        text += helpEntry("-h, --help", "this help");
    }
    return text;
}

std::string topLevelHelpText() {
    std::string text =
        "netvane: network status, rate history and the admin helper's clients\n\n"
        "usage:\n"
        "  netvane COMMAND [ARGUMENTS...]\n"
        "  netvane COMMAND --help\n"
        "  netvane --version\n\n"
        "commands:\n";
    for (const Command* command : commands()) text += helpEntry(std::string(command->name), std::string(command->summary));
    return text;
}

std::string groupHelpText(std::string_view group) {
    std::string usageText, list;
    for (const Command* command : commands()) {
        if (!command->name.starts_with(std::string(group) + " ")) continue;
        usageText += usageLines(*command);
        list += helpEntry(std::string(command->name), std::string(command->summary));
    }
    return "usage:\n" + usageText + "\ncommands:\n" + list + "\n'netvane " + std::string(group) +
           " COMMAND --help' describes each.\n";
}

void stopOnEndingSignals() {
    struct sigaction action {};
    action.sa_handler = noteInterrupt;
    // No SA_RESTART: a sleep or a write blocked on a full pipe returns at
    // once, and the loop sees the flag.
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGALRM, SIGUSR1, SIGUSR2, SIGXCPU, SIGVTALRM, SIGPROF}) {
        ::sigaction(signal, &action, nullptr);
    }
}

bool interrupted() { return interruptReceived != 0; }

double monotonicSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

}  // namespace netvane::cli
