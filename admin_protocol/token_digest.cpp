#include "admin_protocol/token_digest.h"

namespace netvane::TokenDigest {

bool equal(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b) {
    if (a.size() != b.size()) return false;
    // IMPORTANT: no early exit; volatile keeps the compiler from adding one.
    volatile std::uint8_t accumulator = 0;
    for (std::size_t i = 0; i < a.size(); ++i) accumulator = accumulator | (a[i] ^ b[i]);
    return accumulator == 0;
}

}  // namespace netvane::TokenDigest
