#include "support/log.h"

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

namespace netvane {
namespace {

std::atomic<bool> gMirror{false};
std::once_flag gOpenOnce;
// openlog keeps the pointer, so the identity must outlive every call.
std::string gIdentity;

// The service manager says in JOURNAL_STREAM ("device:inode") when stderr is
// the journal; syslog reaches the journal already, and a copy on stderr
// would show every line twice.
bool stderrIsJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    unsigned long long device = 0;
    unsigned long long inode = 0;
    char rest = 0;
    if (stream == nullptr || std::sscanf(stream, "%llu:%llu%c", &device, &inode, &rest) != 2) return false;
    struct stat info {};
    return ::fstat(STDERR_FILENO, &info) == 0 && info.st_dev == device && info.st_ino == inode;
}

}  // namespace

Logger::Logger(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

void Logger::mirrorToStderr(bool on) { gMirror = on && !stderrIsJournal(); }

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
