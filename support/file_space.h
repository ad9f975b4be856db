// Reserving disk space for a file about to be written.
#pragma once

#include <cstddef>

namespace netvane {

// Asks the filesystem to set aside `size` bytes for the open file `fd`, so a
// large write lands in one piece. Only a hint: where the filesystem cannot
// reserve space, the writes that follow find out what there is.
void reserveFileSpace(int fd, std::size_t size);

// Asks for the bytes [offset, offset + size) already written to `fd` to start
// on their way to the disk now, without waiting for them, so that the fsync
// which ends a large write finds most of its work done. Only a hint: where the
// system has no such request, the fsync does all of it.
void startWriteback(int fd, std::size_t offset, std::size_t size);

}  // namespace netvane
