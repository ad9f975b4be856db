#include "support/memory.h"

#include <sys/mman.h>

#include <cstdint>

namespace netvane {

void adviseLargeBuffer(void* data, std::size_t size) {
    if (size < kLargeBufferBytes) return;
    constexpr std::uintptr_t kHugePage = std::uintptr_t{2} << 20;
    const auto begin = reinterpret_cast<std::uintptr_t>(data);
    const std::uintptr_t first = (begin + kHugePage - 1) & ~(kHugePage - 1);
    const std::uintptr_t last = (begin + size) & ~(kHugePage - 1);
    if (last > first) ::madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
}

}  // namespace netvane
