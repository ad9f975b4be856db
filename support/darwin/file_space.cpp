#include "support/file_space.h"

#include <fcntl.h>

namespace netvane {

void reserveFileSpace(int fd, std::size_t size) {
    // Contiguous space first, then any space; the file's length stays as it
    // is, so a short write leaves no reserved tail behind.
    fstore_t store{};
    store.fst_flags = F_ALLOCATECONTIG | F_ALLOCATEALL;
    store.fst_posmode = F_PEOFPOSMODE;
    store.fst_length = static_cast<off_t>(size);
    if (::fcntl(fd, F_PREALLOCATE, &store) == -1) {
        store.fst_flags = F_ALLOCATEALL;
        (void)::fcntl(fd, F_PREALLOCATE, &store);
    }
}

// No request here starts a range on its way without waiting for it: the
// fsync that ends the write does all the writing back.
void startWriteback(int, std::size_t, std::size_t) {}

}  // namespace netvane
