#include "support/open_regular.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

namespace netvane {

Result<UniqueFd> openRegularNoSymlinks(const std::string& path) {
    if (path.empty() || path.front() != '/') return posixError(EINVAL, "not an absolute path: " + path);
    // O_PATH opens nothing: the type is known before any open for reading.
    open_how how{};
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    UniqueFd handle(static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
    if (!handle) {
        // Kernels before 5.6 (or a filter that forbids the call).
        if (errno == ENOSYS || errno == EPERM) return openRegularByComponents(path);
        return posixError(errno, "open " + path);
    }
    struct stat before {};
    if (::fstat(handle.get(), &before) != 0) return posixError(errno, "stat " + path);
    if (!S_ISREG(before.st_mode)) return posixError(EINVAL, path + " is not a regular file");
    // Reopening through the handle reaches the very inode checked above,
    // whatever has happened to the path since.
    const std::string self = "/proc/self/fd/" + std::to_string(handle.get());
    UniqueFd fd(::open(self.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd) {
        if (errno == ENOENT) return openRegularByComponents(path);  // no /proc here
        return posixError(errno, "open " + path);
    }
    struct stat after {};
    if (::fstat(fd.get(), &after) != 0) return posixError(errno, "stat " + path);
    if (after.st_dev != before.st_dev || after.st_ino != before.st_ino) {
        return posixError(EINVAL, path + " changed while being opened");
    }
    return fd;
}

}  // namespace netvane
