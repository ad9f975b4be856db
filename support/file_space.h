// Reserving disk space for a file about to be written.
#pragma once

#include <cstddef>

namespace netvane {

// Asks the filesystem to set aside `size` bytes for the open file `fd`, so a
// large write lands in one piece. Only a hint: where the filesystem cannot
// reserve space, the writes that follow find out what there is.
void reserveFileSpace(int fd, std::size_t size);

}  // namespace netvane
