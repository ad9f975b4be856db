#include "support/file_lock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

namespace netvane {
namespace {

std::optional<std::string> resolved(const std::string& path) {
    std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    if (!real) return std::nullopt;
    return std::string(real.get());
}

}  // namespace

std::string FileLock::lockPathFor(const std::string& file) {
    if (auto real = resolved(file)) return *real + ".lock";
    // Not there yet: the name it will have in its directory as resolved.
    const std::size_t slash = file.find_last_of('/');
    const std::string directory = slash == std::string::npos ? "." : slash == 0 ? "/" : file.substr(0, slash);
    const std::string name = slash == std::string::npos ? file : file.substr(slash + 1);
    if (auto real = resolved(directory)) return (*real == "/" ? "" : *real) + "/" + name + ".lock";
    return file + ".lock";
}

std::optional<pid_t> FileLock::holder(const std::string& lockPath) {
    UniqueFd fd(::open(lockPath.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd) return std::nullopt;
    char text[24];
    const ssize_t n = ::read(fd.get(), text, sizeof text);
    if (n <= 0) return std::nullopt;
    long long pid = 0;
    ssize_t i = 0;
    for (; i < n && text[i] >= '0' && text[i] <= '9' && pid < (1LL << 31); ++i) pid = pid * 10 + (text[i] - '0');
    if (i == 0 || i == n || text[i] != '\n' || pid <= 0 || pid >= (1LL << 31)) return std::nullopt;
    return static_cast<pid_t>(pid);
}

Result<FileLock> FileLock::tryLock(const std::string& file) {
    std::string path = lockPathFor(file);
    UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644));
    if (!fd) return posixError(errno, "open the lock file " + path);
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0) return posixError(errno, "stat " + path);
    if (!S_ISREG(info.st_mode)) return posixError(EINVAL, "the lock file " + path + " is not a regular file");
    if (!lockOpenFileExclusively(fd.get())) {
        const int error = errno;
        if (error != EWOULDBLOCK) return posixError(error, "lock " + path);
        const auto pid = holder(path);
        return Error{kPosixErrorDomain, EWOULDBLOCK,
                     path + " is held by " + (pid ? "process " + std::to_string(*pid) : "another program")};
    }
    // Only a message depends on it: a failure here leaves the lock as good.
    const std::string pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(fd.get(), 0) == 0) (void)!::pwrite(fd.get(), pid.data(), pid.size(), 0);
    return FileLock(std::move(path), std::move(fd));
}

}  // namespace netvane
