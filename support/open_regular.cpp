#include "support/open_regular.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <vector>

namespace netvane {

Result<UniqueFd> openRegularByComponents(const std::string& path) {
    if (path.empty() || path.front() != '/') return posixError(EINVAL, "not an absolute path: " + path);
    std::vector<std::string> parts;
    for (std::size_t start = 1; start <= path.size();) {
        std::size_t slash = path.find('/', start);
        if (slash == std::string::npos) slash = path.size();
        if (slash > start) parts.push_back(path.substr(start, slash - start));
        start = slash + 1;
    }
    if (parts.empty()) return posixError(EINVAL, path + " is not a regular file");
    UniqueFd directory(::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory) return posixError(errno, "open /");
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
        // O_NOFOLLOW makes a symlinked directory ELOOP (or ENOTDIR with O_DIRECTORY on some systems).
        UniqueFd next(::openat(directory.get(), parts[i].c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!next) {
            const int error = errno == ENOTDIR ? ELOOP : errno;
            return posixError(error, "open " + path);
        }
        directory = std::move(next);
    }
    const char* name = parts.back().c_str();
    struct stat before {};
    if (::fstatat(directory.get(), name, &before, AT_SYMLINK_NOFOLLOW) != 0) return posixError(errno, "open " + path);
    if (S_ISLNK(before.st_mode)) return posixError(ELOOP, "open " + path);
    if (!S_ISREG(before.st_mode)) return posixError(EINVAL, path + " is not a regular file");
    UniqueFd fd(::openat(directory.get(), name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd) return posixError(errno, "open " + path);
    struct stat after {};
    if (::fstat(fd.get(), &after) != 0) return posixError(errno, "stat " + path);
    if (!S_ISREG(after.st_mode) || after.st_dev != before.st_dev || after.st_ino != before.st_ino) {
        return posixError(EINVAL, path + " changed while being opened");
    }
    return fd;
}

}  // namespace netvane
