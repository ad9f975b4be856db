#include "support/file_space.h"

#include <fcntl.h>

namespace netvane {

void reserveFileSpace(int fd, std::size_t size) { (void)::posix_fallocate(fd, 0, static_cast<off_t>(size)); }

}  // namespace netvane
