// Digest comparison whose running time does not depend on where two digests
// differ, so a client cannot learn a stored digest byte by byte.
#pragma once

#include <cstdint>
#include <span>

namespace netvane::TokenDigest {

bool equal(std::span<const std::uint8_t> a, std::span<const std::uint8_t> b);

}  // namespace netvane::TokenDigest
