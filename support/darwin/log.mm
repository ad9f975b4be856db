#include "support/log.h"

#include <os/log.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <string>
#include <utility>

#include "support/mutex.h"

namespace netvane {
namespace {

std::atomic<bool> gMirror{false};

// One log object per subsystem and category for the life of the process, as
// the system expects; loggers are cheap values that share them.
struct LogObjects {
    Mutex mutex;
    std::map<std::pair<std::string, std::string>, os_log_t> objects NV_GUARDED_BY(mutex);
};

os_log_t logObject(const std::string& subsystem, const std::string& category) {
    static LogObjects table;
    MutexLock lock(table.mutex);
    __strong os_log_t& object = table.objects[{subsystem, category}];
    if (object == nil) object = os_log_create(subsystem.c_str(), category.c_str());
    return object;
}

}  // namespace

Logger::Logger(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

void Logger::mirrorToStderr(bool on) { gMirror = on; }

void Logger::info(std::string_view message) const { write(OS_LOG_TYPE_INFO, message); }
void Logger::error(std::string_view message) const { write(OS_LOG_TYPE_ERROR, message); }

void Logger::write(int priority, std::string_view message) const {
    const std::string line(message);
    // Every field the daemon logs (identifiers, service ids, uids, flags) is
    // public, so the whole line is.
    os_log_with_type(logObject(subsystem_, category_), static_cast<os_log_type_t>(priority), "%{public}s",
                     line.c_str());
    if (gMirror) std::fprintf(stderr, "%s: [%s] %s\n", subsystem_.c_str(), category_.c_str(), line.c_str());
}

}  // namespace netvane
