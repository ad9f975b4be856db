#include "support/memory.h"

#include <sys/mman.h>

#include <cstdint>

// Older C library headers lack it; kernels before 5.14 refuse it (EINVAL),
// which leaves the buffer to be faulted in as it is written.
#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23
#endif

namespace netvane {

void prefaultBuffer(void* data, std::size_t size) {
    if (size < kPrefaultBytes) return;
    // Whole pages inside the buffer only, so nothing outside it is touched.
    constexpr std::uintptr_t kPage = 4096;
    const auto begin = reinterpret_cast<std::uintptr_t>(data);
    const std::uintptr_t from = (begin + kPage - 1) & ~(kPage - 1);
    const std::uintptr_t to = (begin + size) & ~(kPage - 1);
    if (to > from) ::madvise(reinterpret_cast<void*>(from), to - from, MADV_POPULATE_WRITE);
}

void adviseLargeBuffer(void* data, std::size_t size) {
    if (size < kLargeBufferBytes) return;
    constexpr std::uintptr_t kHugePage = std::uintptr_t{2} << 20;
    const auto begin = reinterpret_cast<std::uintptr_t>(data);
    const std::uintptr_t first = (begin + kHugePage - 1) & ~(kHugePage - 1);
    const std::uintptr_t last = (begin + size) & ~(kHugePage - 1);
    if (last > first) ::madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
    prefaultBuffer(data, size);
}

}  // namespace netvane
