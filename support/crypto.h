// SHA-256 and the system's secure random generator.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "support/result.h"

namespace netvane {

using Sha256Digest = std::array<std::uint8_t, 32>;

Sha256Digest sha256(std::span<const std::uint8_t> bytes);

// Fills `out` from the kernel's cryptographically secure generator; blocks only
// until the generator is seeded at boot.
Status secureRandomBytes(std::span<std::uint8_t> out);

}  // namespace netvane
