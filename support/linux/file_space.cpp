#include "support/file_space.h"

#include <fcntl.h>

namespace netvane {

void reserveFileSpace(int fd, std::size_t size) { (void)::posix_fallocate(fd, 0, static_cast<off_t>(size)); }

void startWriteback(int fd, std::size_t offset, std::size_t size) {
    (void)::sync_file_range(fd, static_cast<off_t>(offset), static_cast<off_t>(size), SYNC_FILE_RANGE_WRITE);
}

}  // namespace netvane
