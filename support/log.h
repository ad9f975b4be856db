// The system log. One process-wide identity (the subsystem) with a category
// per logger; on Linux lines go to syslog, where the journal picks them up, as
// "[category] message". Optionally mirrored to stderr for foreground runs.
// Thread-safe.
#pragma once

#include <string>
#include <string_view>

namespace netvane {

class Logger {
public:
    Logger(std::string subsystem, std::string category);

    void info(std::string_view message) const;
    void error(std::string_view message) const;

    // Also print every line to stderr (a daemon run in the foreground),
    // unless stderr is the journal, which has the syslog copy already.
    static void mirrorToStderr(bool on);

private:
    void write(int priority, std::string_view message) const;

    std::string subsystem_;
    std::string category_;
};

}  // namespace netvane
