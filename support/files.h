// File helpers with the guarantees the rest of the system relies on.
//
// `writeFileAtomically` never leaves a partial file behind: the bytes go to a
// temporary file in the same directory, which is flushed to disk and renamed
// over the target; on any failure the temporary is removed and the old file
// stays as it was. System failures come back as posixError values.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "support/result.h"

namespace netvane {

using Bytes = std::vector<std::uint8_t>;

// Reads a whole regular file; refuses files larger than maxBytes (EFBIG).
Result<Bytes> readFile(const std::string& path, std::size_t maxBytes = std::size_t{1} << 31);

// Writes through "<path>.XXXXXX" + fsync + rename; the new file gets `mode`.
Status writeFileAtomically(const std::string& path, std::span<const std::uint8_t> bytes, mode_t mode = 0644);
Status writeFileAtomically(const std::string& path, std::string_view text, mode_t mode = 0644);
// The file's bytes are whatever `produce` hands to its sink, in order; an
// error from either side leaves the old file as it was. A known size lets
// the filesystem reserve the space in one piece before the bytes arrive.
using ByteSink = std::function<Status(std::span<const std::uint8_t>)>;
Status writeFileAtomically(const std::string& path, const std::function<Status(const ByteSink&)>& produce,
                           mode_t mode = 0644, std::size_t expectedSize = 0);

// Creates a directory and its missing parents with `mode` (exactly, or as
// narrowed by the process's umask); an existing directory is accepted as it is.
enum class DirectoryMode { exact, umasked };
Status createDirectories(const std::string& path, mode_t mode, DirectoryMode applied = DirectoryMode::exact);

Status setMode(const std::string& path, mode_t mode);
Status setOwner(const std::string& path, uid_t uid, gid_t gid);

}  // namespace netvane
