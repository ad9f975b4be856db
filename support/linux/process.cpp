#include "support/process.h"

#include <cstdlib>
#include <string>

#include "support/files.h"

namespace netvane {

std::uint64_t processStartTime(pid_t pid) {
    auto stat = readFile("/proc/" + std::to_string(pid) + "/stat", 4096);
    if (!stat) return 0;
    const std::string text(stat->begin(), stat->end());
    // Field 22 of /proc/PID/stat. The command name (field 2) may hold spaces
    // and parentheses, so fields are counted from the last ')'.
    std::size_t pos = text.rfind(')');
    if (pos == std::string::npos) return 0;
    for (int field = 3; field <= 22; ++field) {
        pos = text.find(' ', pos + 1);
        if (pos == std::string::npos) return 0;
    }
    return std::strtoull(text.c_str() + pos + 1, nullptr, 10);
}

}  // namespace netvane
