// File helpers with the guarantees the rest of the system relies on.
//
// `writeFileAtomically` never leaves a partial file behind: the bytes go to a
// temporary file in the same directory, which is flushed to disk and renamed
// over the target; on any failure the temporary is removed and the old file
// stays as it was. System failures come back as posixError values.
//
// What stands at the path decides what a write does:
// - nothing: a new file with the `mode` asked for;
// - a regular file: replaced whole, keeping its mode, owner and group (when
//   its owner cannot be given to the new file, EPERM and nothing changes);
// - a symbolic link: the file it names is replaced as above and the link
//   stays; a link to nothing is refused (ENOENT);
// - a directory (EISDIR), a FIFO, a device or a socket (EINVAL): refused
//   before anything is written, so that no write ever replaces one.
// The variant that names a `FileOwner` is for privileged writers: it follows
// no link (ELOOP) and gives the file exactly that owner and `mode`.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "support/result.h"

namespace netvane {

using Bytes = std::vector<std::uint8_t>;

// Reads a whole regular file; refuses files larger than maxBytes (EFBIG).
Result<Bytes> readFile(const std::string& path, std::size_t maxBytes = std::size_t{1} << 31);

// Reads a file that another user may control (a bundle beside some process's
// executable) on behalf of a privileged caller. No symlink is followed in
// any component (ELOOP); anything but a regular file is refused (EINVAL)
// before a byte is read, and a FIFO or device is never opened for reading;
// more than maxBytes is EFBIG; reading past timeLimit is ETIMEDOUT.
Result<Bytes> readUntrustedFile(const std::string& path, std::size_t maxBytes, std::chrono::milliseconds timeLimit);

// Writes through "<path>.XXXXXX" + fsync + rename; a new file gets `mode`.
Status writeFileAtomically(const std::string& path, std::span<const std::uint8_t> bytes, mode_t mode = 0644);
Status writeFileAtomically(const std::string& path, std::string_view text, mode_t mode = 0644);
// The file's bytes are whatever `produce` hands to its sink, in order; an
// error from either side leaves the old file as it was. A known size lets
// the filesystem reserve the space in one piece before the bytes arrive.
using ByteSink = std::function<Status(std::span<const std::uint8_t>)>;
Status writeFileAtomically(const std::string& path, const std::function<Status(const ByteSink&)>& produce,
                           mode_t mode = 0644, std::size_t expectedSize = 0);
// As above, and the new file is given to `owner` through its descriptor
// before the rename, so the name never points at a file of the wrong owner.
struct FileOwner {
    uid_t uid = 0;
    gid_t gid = 0;
};
Status writeFileAtomically(const std::string& path, std::span<const std::uint8_t> bytes, mode_t mode, FileOwner owner);
// Removes what an interrupted writeFileAtomically of `path` left behind:
// regular files named "<path>.XXXXXX" owned by this process's user, and
// nothing else. Errors other than a missing directory are returned.
Status removeAtomicWriteLeftovers(const std::string& path);

// The same three through a directory held open since it was checked, so that
// whatever has become of its path since, the file lands in (and is read
// from, and cleaned out of) that very directory. Only `name` is looked up in
// it, never through a symlink. Errors name `shownAs`, the path the caller
// knows the file by, and the step that failed ("save F (fsync): ...").
Status writeFileAtomicallyAt(int directoryFd, const std::string& name, std::span<const std::uint8_t> bytes,
                             mode_t mode, std::optional<FileOwner> owner, const std::string& shownAs);
// A missing file is ENOENT; anything but a regular file EINVAL.
Result<Bytes> readFileAt(int directoryFd, const std::string& name, std::size_t maxBytes, const std::string& shownAs);
Status removeAtomicWriteLeftoversAt(int directoryFd, const std::string& name, const std::string& shownAs);

// Moves a file that could not be read out of the way of the next save,
// beside itself as "<name>.unreadable-<UTC time>" (a counter added when that
// is taken; an existing file is never replaced), so that what it held is
// never lost to a save. `mode`, when given, narrows the kept file's mode
// (a pairing file stays 0600). The name is taken in `directoryFd` without
// following a symlink; returns the name it was given.
Result<std::string> keepAsideAt(int directoryFd, const std::string& name, std::optional<mode_t> mode = std::nullopt);
// The same for a path: its directory is opened first.
Result<std::string> keepAside(const std::string& path, std::optional<mode_t> mode = std::nullopt);

// Creates a directory and its missing parents with `mode` (exactly, or as
// narrowed by the process's umask); an existing directory is accepted as it is.
enum class DirectoryMode { exact, umasked };
Status createDirectories(const std::string& path, mode_t mode, DirectoryMode applied = DirectoryMode::exact);

// For directories a privileged process keeps its state or sockets in: the
// directory and every ancestor must be real directories (lstat: no symlink),
// owned by root or by this process's user, and writable by nobody else (an
// ancestor may be world-writable only with the sticky bit, as /tmp is).
// EPERM names the first directory that fails.
Status checkTrustedDirectory(const std::string& path);

}  // namespace netvane
