#include "support/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "support/file_space.h"
#include "support/memory.h"
#include "support/unique_fd.h"

namespace netvane {
namespace {

Status writeAll(int fd, const std::uint8_t* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return posixError(errno, "write");
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
    return {};
}

std::string parentOf(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

}  // namespace

Result<Bytes> readFile(const std::string& path, std::size_t maxBytes) {
    // Paths may come from other users (a bundle next to some process's
    // executable): only a regular file is ever opened, never a FIFO that
    // would block or a device whose open has side effects.
    struct stat before {};
    if (::stat(path.c_str(), &before) != 0) return posixError(errno, "open " + path);
    if (!S_ISREG(before.st_mode)) return posixError(EINVAL, path + " is not a regular file");
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd) return posixError(errno, "open " + path);
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0) return posixError(errno, "stat " + path);
    if (!S_ISREG(info.st_mode) || info.st_dev != before.st_dev || info.st_ino != before.st_ino) {
        return posixError(EINVAL, path + " changed while being opened");
    }
    if (static_cast<std::uint64_t>(info.st_size) > maxBytes) return posixError(EFBIG, "read " + path);
    Bytes bytes;
    // The size is a hint: the file may grow or shrink while we read it.
    bytes.reserve(static_cast<std::size_t>(info.st_size) + 1);
    adviseLargeBuffer(bytes.data(), bytes.capacity());
    bytes.resize(static_cast<std::size_t>(info.st_size) + 1);
    std::size_t used = 0;
    for (;;) {
        if (used == bytes.size()) {
            if (bytes.size() > maxBytes) return posixError(EFBIG, "read " + path);
            bytes.resize(bytes.size() * 2);
        }
        const ssize_t n = ::read(fd.get(), bytes.data() + used, bytes.size() - used);
        if (n < 0) {
            if (errno == EINTR) continue;
            return posixError(errno, "read " + path);
        }
        if (n == 0) break;
        used += static_cast<std::size_t>(n);
    }
    if (used > maxBytes) return posixError(EFBIG, "read " + path);
    bytes.resize(used);
    return bytes;
}

Status writeFileAtomically(const std::string& path, std::span<const std::uint8_t> bytes, mode_t mode) {
    return writeFileAtomically(path, [&](const ByteSink& sink) { return sink(bytes); }, mode, bytes.size());
}

Status writeFileAtomically(const std::string& path, const std::function<Status(const ByteSink&)>& produce,
                           mode_t mode, std::size_t expectedSize) {
    std::string temporary = path + ".XXXXXX";
    UniqueFd fd(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!fd) return posixError(errno, "create temporary file for " + path);
    auto fail = [&](Error error) -> Status {
        ::unlink(temporary.c_str());
        return error;
    };
    if (::fchmod(fd.get(), mode) != 0) return fail(posixError(errno, "chmod " + temporary));
    if (expectedSize > 0) reserveFileSpace(fd.get(), expectedSize);
    const ByteSink sink = [&](std::span<const std::uint8_t> piece) { return writeAll(fd.get(), piece.data(), piece.size()); };
    if (auto written = produce(sink); !written.ok()) return fail(written.error());
    if (::fsync(fd.get()) != 0) return fail(posixError(errno, "fsync " + temporary));
    if (::close(fd.release()) != 0) return fail(posixError(errno, "close " + temporary));
    if (::rename(temporary.c_str(), path.c_str()) != 0) return fail(posixError(errno, "rename to " + path));
    // Make the rename itself durable.
    UniqueFd directory(::open(parentOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory) ::fsync(directory.get());
    return {};
}

Status writeFileAtomically(const std::string& path, std::string_view text, mode_t mode) {
    return writeFileAtomically(path, std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()), mode);
}

Status createDirectories(const std::string& path, mode_t mode, DirectoryMode applied) {
    if (path.empty()) return posixError(ENOENT, "mkdir of an empty path");
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0) {
        if (S_ISDIR(info.st_mode)) return {};
        return posixError(ENOTDIR, "mkdir " + path);
    }
    const std::string parent = parentOf(path);
    if (parent != path) {
        if (auto made = createDirectories(parent, mode, applied); !made.ok()) return made;
    }
    if (::mkdir(path.c_str(), mode) != 0 && errno != EEXIST) return posixError(errno, "mkdir " + path);
    // mkdir applies the umask; undo that when the caller asked for exactly `mode`.
    if (applied == DirectoryMode::exact && ::chmod(path.c_str(), mode) != 0) return posixError(errno, "chmod " + path);
    return {};
}

Status setMode(const std::string& path, mode_t mode) {
    if (::chmod(path.c_str(), mode) != 0) return posixError(errno, "chmod " + path);
    return {};
}

Status setOwner(const std::string& path, uid_t uid, gid_t gid) {
    // A file that already has its owner is left alone: the daemon's service
    // sandbox refuses the chown family outright, and root's new files are
    // root's anyway.
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0 && info.st_uid == uid && info.st_gid == gid) return {};
    if (::chown(path.c_str(), uid, gid) != 0) return posixError(errno, "chown " + path);
    return {};
}

}  // namespace netvane
