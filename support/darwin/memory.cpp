#include "support/memory.h"

namespace netvane {

// macOS offers no way to ask for huge pages behind an anonymous buffer; the
// kernel's own superpage policy applies.
void adviseLargeBuffer(void*, std::size_t) {}

// Nor to map an anonymous buffer in ahead of its first writes.
void prefaultBuffer(void*, std::size_t) {}

}  // namespace netvane
