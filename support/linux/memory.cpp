#include "support/memory.h"

#include <sys/mman.h>

#include <cstdint>

// Older C library headers lack it; kernels before 5.14 refuse it (EINVAL),
// which leaves the buffer to be faulted in as it is written.
#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23
#endif

namespace netvane {

void adviseLargeBuffer(void* data, std::size_t size) {
    if (size < kLargeBufferBytes) return;
    constexpr std::uintptr_t kHugePage = std::uintptr_t{2} << 20;
    constexpr std::uintptr_t kPage = 4096;
    const auto begin = reinterpret_cast<std::uintptr_t>(data);
    const std::uintptr_t first = (begin + kHugePage - 1) & ~(kHugePage - 1);
    const std::uintptr_t last = (begin + size) & ~(kHugePage - 1);
    if (last > first) ::madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
    // Mapping the whole buffer in one call spares a trap into the kernel per
    // page (or huge page) as it is first written; under a hypervisor each
    // trap costs several times the zeroing of its page. The pages are whole
    // ones inside the buffer, so nothing outside it is touched.
    const std::uintptr_t from = (begin + kPage - 1) & ~(kPage - 1);
    const std::uintptr_t to = (begin + size) & ~(kPage - 1);
    if (to > from) ::madvise(reinterpret_cast<void*>(from), to - from, MADV_POPULATE_WRITE);
}

}  // namespace netvane
