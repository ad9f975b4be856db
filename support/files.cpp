#include "support/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string_view>

#include "support/crypto.h"
#include "support/file_space.h"
#include "support/memory.h"
#include "support/open_regular.h"
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

// How much written data is left to the page cache before it is sent on.
constexpr std::size_t kWritebackStride = std::size_t{8} << 20;

// mkostemp's suffix: six characters from this set.
constexpr std::size_t kTemporarySuffixLength = 6;
bool isTemporarySuffix(std::string_view suffix) {
    if (suffix.size() != kTemporarySuffixLength) return false;
    for (const char c : suffix) {
        const bool alphanumeric = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        if (!alphanumeric) return false;
    }
    return true;
}

// The file a write of `path` replaces (for a symbolic link, the file it
// names), and what stands there now.
struct WriteTarget {
    std::string path;
    std::optional<struct stat> existing;
};

Result<WriteTarget> writeTarget(const std::string& path, bool followSymlink) {
    WriteTarget target{path, std::nullopt};
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        if (errno == ENOENT) return target;
        return posixError(errno, "stat " + path);
    }
    if (S_ISLNK(info.st_mode)) {
        if (!followSymlink) return posixError(ELOOP, path + " is a symbolic link");
        std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr), &std::free);
        if (!resolved && errno == ENOENT) {
            return Error{kPosixErrorDomain, ENOENT, path + " is a symbolic link to a missing file"};
        }
        if (!resolved) return posixError(errno, "resolve " + path);
        target.path = resolved.get();
        if (::stat(target.path.c_str(), &info) != 0) return posixError(errno, "stat " + target.path);
    }
    if (S_ISDIR(info.st_mode)) return posixError(EISDIR, "write " + target.path);
    if (!S_ISREG(info.st_mode)) return posixError(EINVAL, target.path + " is not a regular file");
    target.existing = info;
    return target;
}

Status writeAtomically(const std::string& requested, const std::function<Status(const ByteSink&)>& produce, mode_t mode,
                       std::size_t expectedSize, const FileOwner* owner) {
    // A caller that names the owner wants exactly that owner and mode, and
    // is a privileged writer that follows no link; any other write keeps
    // what the file it replaces had.
    auto target = writeTarget(requested, owner == nullptr);
    if (!target) return target.error();
    FileOwner kept;
    if (owner == nullptr && target->existing) {
        kept = FileOwner{target->existing->st_uid, target->existing->st_gid};
        owner = &kept;
        mode = target->existing->st_mode & 07777;
    }
    const std::string& path = target->path;
    std::string temporary = path + ".XXXXXX";
    UniqueFd fd(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!fd) return posixError(errno, "create temporary file for " + path);
    auto fail = [&](Error error) -> Status {
        ::unlink(temporary.c_str());
        return error;
    };
    // Owner before mode: chown may clear set-id bits that the mode asks for.
    // A file that already has its owner is left alone: the daemon's service
    // sandbox refuses the chown family outright, and root's new files are
    // root's anyway.
    if (owner) {
        struct stat info {};
        if (::fstat(fd.get(), &info) != 0) return fail(posixError(errno, "stat " + temporary));
        const bool owned = info.st_uid == owner->uid && info.st_gid == owner->gid;
        if (!owned && ::fchown(fd.get(), owner->uid, owner->gid) != 0) {
            return fail(posixError(errno, "give the new " + path + " its owner"));
        }
    }
    if (::fchmod(fd.get(), mode) != 0) return fail(posixError(errno, "chmod " + temporary));
    if (expectedSize > 0) reserveFileSpace(fd.get(), expectedSize);
    // A large file is sent on its way to the disk while the rest is still
    // being produced, rather than all of it at the fsync below.
    std::size_t total = 0, sent = 0;
    const ByteSink sink = [&](std::span<const std::uint8_t> piece) {
        while (!piece.empty()) {
            const std::size_t step = std::min(piece.size(), sent + kWritebackStride - total);
            if (auto status = writeAll(fd.get(), piece.data(), step); !status.ok()) {
                return Status(posixError(static_cast<int>(status.error().code), "write " + temporary));
            }
            total += step;
            piece = piece.subspan(step);
            if (total - sent == kWritebackStride) {
                startWriteback(fd.get(), sent, kWritebackStride);
                sent = total;
            }
        }
        return Status{};
    };
    if (auto written = produce(sink); !written.ok()) return fail(written.error());
    if (::fsync(fd.get()) != 0) return fail(posixError(errno, "fsync " + temporary));
    if (::close(fd.release()) != 0) return fail(posixError(errno, "close " + temporary));
    if (::rename(temporary.c_str(), path.c_str()) != 0) return fail(posixError(errno, "rename to " + path));
    // Make the rename itself durable.
    UniqueFd directory(::open(parentOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory) ::fsync(directory.get());
    return {};
}

// The rest of an open regular file whose fstat said `size` bytes.
Result<Bytes> readOpened(int fd, const std::string& path, std::uint64_t size, std::size_t maxBytes,
                         std::optional<std::chrono::steady_clock::time_point> deadline) {
    if (size > maxBytes) return posixError(EFBIG, "read " + path);
    Bytes bytes;
    // The size is a hint: the file may grow or shrink while we read it.
    bytes.reserve(static_cast<std::size_t>(size) + 1);
    adviseLargeBuffer(bytes.data(), bytes.capacity());
    bytes.resize(static_cast<std::size_t>(size) + 1);
    std::size_t used = 0;
    for (;;) {
        if (deadline && std::chrono::steady_clock::now() > *deadline) return posixError(ETIMEDOUT, "read " + path);
        if (used == bytes.size()) {
            if (bytes.size() > maxBytes) return posixError(EFBIG, "read " + path);
            bytes.resize(bytes.size() * 2);
        }
        const ssize_t n = ::read(fd, bytes.data() + used, bytes.size() - used);
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

}  // namespace

Result<Bytes> readFile(const std::string& path, std::size_t maxBytes) {
    // Paths here are our own or the caller's; files of other users go
    // through readUntrustedFile. Still, only a regular file is opened.
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
    return readOpened(fd.get(), path, static_cast<std::uint64_t>(info.st_size), maxBytes, std::nullopt);
}

Result<Bytes> readUntrustedFile(const std::string& path, std::size_t maxBytes, std::chrono::milliseconds timeLimit) {
    const auto deadline = std::chrono::steady_clock::now() + timeLimit;
    auto fd = openRegularNoSymlinks(path);
    if (!fd) return fd.error();
    struct stat info {};
    if (::fstat(fd->get(), &info) != 0) return posixError(errno, "stat " + path);
    return readOpened(fd->get(), path, static_cast<std::uint64_t>(info.st_size), maxBytes, deadline);
}

Status writeFileAtomically(const std::string& path, std::span<const std::uint8_t> bytes, mode_t mode) {
    return writeFileAtomically(path, [&](const ByteSink& sink) { return sink(bytes); }, mode, bytes.size());
}

Status writeFileAtomically(const std::string& path, const std::function<Status(const ByteSink&)>& produce,
                           mode_t mode, std::size_t expectedSize) {
    return writeAtomically(path, produce, mode, expectedSize, nullptr);
}

Status writeFileAtomically(const std::string& path, std::span<const std::uint8_t> bytes, mode_t mode, FileOwner owner) {
    return writeAtomically(path, [&](const ByteSink& sink) { return sink(bytes); }, mode, bytes.size(), &owner);
}

Status removeAtomicWriteLeftovers(const std::string& path) {
    const std::string directoryPath = parentOf(path);
    const std::size_t slash = path.find_last_of('/');
    UniqueFd directoryFd(::open(directoryPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!directoryFd) return errno == ENOENT ? Status{} : posixError(errno, "open " + directoryPath);
    return removeAtomicWriteLeftoversAt(directoryFd.get(), slash == std::string::npos ? path : path.substr(slash + 1),
                                        path);
}

Status writeFileAtomically(const std::string& path, std::string_view text, mode_t mode) {
    return writeFileAtomically(path, std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()), mode);
}

Result<std::string> keepAsideAt(int directoryFd, const std::string& name, std::optional<mode_t> mode) {
    if (mode) {
        UniqueFd fd(::openat(directoryFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        if (!fd) return posixError(errno, "open " + name);
        struct stat info {};
        if (::fstat(fd.get(), &info) != 0) return posixError(errno, "stat " + name);
        if (::fchmod(fd.get(), info.st_mode & *mode & 07777) != 0) return posixError(errno, "chmod " + name);
    }
    const std::time_t now = std::time(nullptr);
    std::tm utc {};
    char stamp[32];
    ::gmtime_r(&now, &utc);
    std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc);
    const std::string base = name + ".unreadable-" + stamp;
    // A hard link never replaces an existing name, so no kept file is lost to
    // a second one from the same second; then the old name goes.
    for (int attempt = 1; attempt <= 100; ++attempt) {
        const std::string kept = attempt == 1 ? base : base + "-" + std::to_string(attempt);
        if (::linkat(directoryFd, name.c_str(), directoryFd, kept.c_str(), 0) != 0) {
            if (errno == EEXIST) continue;
            return posixError(errno, "keep " + name + " aside as " + kept);
        }
        if (::unlinkat(directoryFd, name.c_str(), 0) != 0) {
            const Error error = posixError(errno, "remove " + name + " after keeping it as " + kept);
            ::unlinkat(directoryFd, kept.c_str(), 0);
            return error;
        }
        ::fsync(directoryFd);
        return kept;
    }
    return posixError(EEXIST, "keep " + name + " aside");
}

Result<std::string> keepAside(const std::string& path, std::optional<mode_t> mode) {
    const std::string directory = parentOf(path);
    UniqueFd directoryFd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directoryFd) return posixError(errno, "open " + directory);
    const std::size_t slash = path.find_last_of('/');
    auto kept = keepAsideAt(directoryFd.get(), slash == std::string::npos ? path : path.substr(slash + 1), mode);
    if (!kept) return kept.error();
    return directory + "/" + *kept;
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

Status checkTrustedDirectory(const std::string& path) {
    if (path.empty() || path.front() != '/') return posixError(EINVAL, "not an absolute path: " + path);
    const uid_t self = ::geteuid();
    std::string current = path;
    while (current.size() > 1 && current.back() == '/') current.pop_back();
    for (bool innermost = true;; innermost = false) {
        struct stat info {};
        if (::lstat(current.c_str(), &info) != 0) return posixError(errno, "lstat " + current);
        const bool sticky = (info.st_mode & S_ISVTX) != 0;
        const bool othersWrite = (info.st_mode & (S_IWGRP | S_IWOTH)) != 0;
        if (S_ISLNK(info.st_mode)) return posixError(EPERM, current + " is a symbolic link");
        if (!S_ISDIR(info.st_mode)) return posixError(EPERM, current + " is not a directory");
        if (info.st_uid != 0 && info.st_uid != self) return posixError(EPERM, current + " has an untrusted owner");
        if (othersWrite && (innermost || !sticky)) return posixError(EPERM, current + " is writable by other users");
        if (current == "/") return {};
        current = parentOf(current);
    }
}

namespace {

// A name for the temporary beside `name` that removeAtomicWriteLeftovers
// recognises: six letters or digits, as mkostemp would choose.
Result<std::string> temporaryName(const std::string& name) {
    static constexpr char kAlphabet[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    std::uint8_t random[kTemporarySuffixLength];
    if (auto filled = secureRandomBytes(random); !filled.ok()) return filled.error();
    std::string temporary = name + ".";
    for (const std::uint8_t byte : random) temporary += kAlphabet[byte % (sizeof kAlphabet - 1)];
    return temporary;
}

// rename(2) by the held directory's name under /proc reaches the very
// directory that renameat(2) would, and it is the call that interposed fault
// injection sees; without /proc, renameat.
int renameInDirectory(int directoryFd, const std::string& from, const std::string& to) {
    const std::string base = "/proc/self/fd/" + std::to_string(directoryFd) + "/";
    if (::access("/proc/self/fd", X_OK) != 0) return ::renameat(directoryFd, from.c_str(), directoryFd, to.c_str());
    return ::rename((base + from).c_str(), (base + to).c_str());
}

}  // namespace

Status writeFileAtomicallyAt(int directoryFd, const std::string& name, std::span<const std::uint8_t> bytes,
                             mode_t mode, std::optional<FileOwner> owner, const std::string& shownAs) {
    const auto failed = [&](int error, const char* step) {
        return posixError(error, "save " + shownAs + " (" + step + ")");
    };
    UniqueFd fd;
    std::string temporary;
    for (int attempt = 0; attempt < 100 && !fd; ++attempt) {
        auto chosen = temporaryName(name);
        if (!chosen) return chosen.error();
        temporary = std::move(*chosen);
        fd.reset(::openat(directoryFd, temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        if (!fd && errno != EEXIST) return failed(errno, "create temporary file");
    }
    if (!fd) return failed(EEXIST, "create temporary file");
    const auto fail = [&](Error error) -> Status {
        ::unlinkat(directoryFd, temporary.c_str(), 0);
        return error;
    };
    // Owner before mode, as writeAtomically does, and only when it differs.
    if (owner) {
        struct stat info {};
        if (::fstat(fd.get(), &info) != 0) return fail(failed(errno, "stat"));
        const bool owned = info.st_uid == owner->uid && info.st_gid == owner->gid;
        if (!owned && ::fchown(fd.get(), owner->uid, owner->gid) != 0) return fail(failed(errno, "chown"));
    }
    if (::fchmod(fd.get(), mode) != 0) return fail(failed(errno, "chmod"));
    if (auto written = writeAll(fd.get(), bytes.data(), bytes.size()); !written.ok()) {
        return fail(failed(static_cast<int>(written.error().code), "write"));
    }
    if (::fsync(fd.get()) != 0) return fail(failed(errno, "fsync"));
    if (::close(fd.release()) != 0) return fail(failed(errno, "close"));
    if (renameInDirectory(directoryFd, temporary, name) != 0) return fail(failed(errno, "rename"));
    // Make the rename itself durable.
    ::fsync(directoryFd);
    return {};
}

Result<Bytes> readFileAt(int directoryFd, const std::string& name, std::size_t maxBytes, const std::string& shownAs) {
    UniqueFd fd(::openat(directoryFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd) return posixError(errno, "open " + shownAs);
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0) return posixError(errno, "stat " + shownAs);
    if (!S_ISREG(info.st_mode)) return posixError(EINVAL, shownAs + " is not a regular file");
    return readOpened(fd.get(), shownAs, static_cast<std::uint64_t>(info.st_size), maxBytes, std::nullopt);
}

Status removeAtomicWriteLeftoversAt(int directoryFd, const std::string& name, const std::string& shownAs) {
    const std::string prefix = name + ".";
    const int listingFd = ::openat(directoryFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* listing = listingFd >= 0 ? ::fdopendir(listingFd) : nullptr;
    if (!listing) {
        const int error = errno;
        if (listingFd >= 0) ::close(listingFd);
        return posixError(error, "list the directory of " + shownAs);
    }
    Status result;
    while (const dirent* entry = ::readdir(listing)) {
        const std::string_view entryName = entry->d_name;
        if (!entryName.starts_with(prefix) || !isTemporarySuffix(entryName.substr(prefix.size()))) continue;
        struct stat info {};
        if (::fstatat(directoryFd, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (!S_ISREG(info.st_mode) || info.st_uid != ::geteuid()) continue;
        if (::unlinkat(directoryFd, entry->d_name, 0) != 0 && errno != ENOENT) {
            result = posixError(errno, "remove " + std::string(entryName) + " beside " + shownAs);
        }
    }
    ::closedir(listing);
    return result;
}

}  // namespace netvane
