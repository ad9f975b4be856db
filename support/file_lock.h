// One writer per file, across programs. A program that replaces FILE (by an
// atomic rename, as writeFileAtomically does) and must not lose what another
// writer saved holds an exclusive flock(2) on "FILE.lock" beside it until
// after its last save, and what it continues is what FILE held once the lock
// was taken. The contract a second program follows, whatever its language:
// - FILE is the file actually written: for a symbolic link, the file it
//   names, so that every path to one file meets at one lock;
// - the lock file is created when missing (mode 0644, less the umask), and
//   never replaced or removed, since a program waiting on the old inode would
//   otherwise hold a lock nobody else sees; a symbolic link there is refused;
// - the holder writes its pid in decimal and a newline into it, for messages
//   only (`flock -n FILE.lock COMMAND` from a shell honours the lock without
//   writing one).
// The lock lives as long as the FileLock; closing it releases the lock.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "support/result.h"
#include "support/unique_fd.h"

namespace netvane {

class FileLock {
public:
    // The lock on `file`'s lock file, taken without waiting. Held by another
    // open of it (in this or any process): EWOULDBLOCK, with the holder's pid
    // in the message when it wrote one. Other failures as the system says.
    static Result<FileLock> tryLock(const std::string& file);

    // "FILE.lock" for the file a write of `file` replaces.
    static std::string lockPathFor(const std::string& file);
    // The pid the holder of `lockPath` wrote, if any.
    static std::optional<pid_t> holder(const std::string& lockPath);

    const std::string& path() const { return path_; }

private:
    FileLock(std::string path, UniqueFd fd) : path_(std::move(path)), fd_(std::move(fd)) {}

    std::string path_;
    UniqueFd fd_;
};

// The OS's exclusive, non-waiting whole-file lock on an open file, released
// when the last descriptor of that open file is closed; false with errno set
// (EWOULDBLOCK when another open file holds it).
bool lockOpenFileExclusively(int fd);

}  // namespace netvane
