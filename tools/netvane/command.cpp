#include "command.h"

#include <signal.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstdio>

namespace netvane::cli {
namespace {

volatile sig_atomic_t interruptReceived = 0;

extern "C" void noteInterrupt(int) { interruptReceived = 1; }

std::vector<const Command*>& registry() {
    static std::vector<const Command*> all;
    return all;
}

}  // namespace

Command::Command(std::string_view name, std::string_view synopsis, std::string_view summary,
                 std::function<int(const Args&)> run)
    : name(name), synopsis(synopsis), summary(summary), run(std::move(run)) {
    auto& all = registry();
    all.insert(std::upper_bound(all.begin(), all.end(), this,
                                [](const Command* a, const Command* b) { return a->name < b->name; }),
               this);
}

const std::vector<const Command*>& commands() { return registry(); }

int usageError(const Command& command, std::string_view message) {
    std::fprintf(stderr, "netvane %.*s: %.*s\nusage:\n", static_cast<int>(command.name.size()), command.name.data(),
                 static_cast<int>(message.size()), message.data());
    std::fprintf(stderr, "%.*s\n", static_cast<int>(command.synopsis.size()), command.synopsis.data());
    return kExitUsage;
}

int failure(std::string_view message) {
    std::fprintf(stderr, "netvane: %.*s\n", static_cast<int>(message.size()), message.data());
    return kExitFailure;
}

bool wantsHelp(const Args& args) {
    return std::any_of(args.begin(), args.end(), [](std::string_view a) { return a == "--help" || a == "-h"; });
}

std::optional<double> parsePositiveSeconds(std::string_view text) {
    const std::string copy(text);
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(copy.c_str(), &end);
    if (copy.empty() || *end != '\0' || errno != 0 || !std::isfinite(value) || value <= 0) return std::nullopt;
    return value;
}

std::optional<std::uint64_t> parsePositiveCount(std::string_view text) {
    const std::string copy(text);
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(copy.c_str(), &end, 10);
    if (copy.empty() || copy[0] == '-' || *end != '\0' || errno != 0 || value == 0) return std::nullopt;
    return value;
}

int printHelp(const Command& command) {
    std::printf("%.*s\n\n%.*s\n", static_cast<int>(command.summary.size()), command.summary.data(),
                static_cast<int>(command.synopsis.size()), command.synopsis.data());
    return kExitOK;
}

void stopOnInterrupt() {
    struct sigaction action {};
    action.sa_handler = noteInterrupt;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

bool interrupted() { return interruptReceived != 0; }

double monotonicSeconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

}  // namespace netvane::cli
