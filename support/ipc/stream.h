// Whole-buffer reads and writes on blocking stream sockets, retrying on EINTR.
// A read that meets end of stream before the buffer is full is an error
// (ECONNRESET), so a truncated frame never looks complete.
#pragma once

#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "support/result.h"

namespace netvane::ipc {

Status readFully(int fd, std::uint8_t* buffer, std::size_t size);
Status writeFully(int fd, const std::uint8_t* buffer, std::size_t size);

// The socket address of a filesystem path; false when the path is too long.
bool unixSocketAddress(const std::string& path, sockaddr_un& address);

}  // namespace netvane::ipc
