#include "support/log.h"

#include <syslog.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>

namespace netvane {
namespace {

std::atomic<bool> gMirror{false};
std::once_flag gOpenOnce;
// openlog keeps the pointer, so the identity must outlive every call.
std::string gIdentity;

}  // namespace

Logger::Logger(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

void Logger::mirrorToStderr(bool on) { gMirror = on; }

void Logger::info(std::string_view message) const { write(LOG_INFO, message); }
void Logger::error(std::string_view message) const { write(LOG_ERR, message); }

void Logger::write(int priority, std::string_view message) const {
    std::call_once(gOpenOnce, [this] {
        gIdentity = subsystem_;
        ::openlog(gIdentity.c_str(), LOG_PID | LOG_NDELAY, LOG_DAEMON);
    });
    const std::string line = "[" + category_ + "] " + std::string(message);
    ::syslog(priority, "%s", line.c_str());
    if (gMirror) std::fprintf(stderr, "%s: %s\n", subsystem_.c_str(), line.c_str());
}

}  // namespace netvane
