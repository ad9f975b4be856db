// Standard Base64 (RFC 4648 alphabet, '=' padding).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace netvane {

std::string base64Encode(std::span<const std::uint8_t> bytes);
// Skips ASCII whitespace; refuses any other character outside the alphabet,
// and misplaced or missing padding.
std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text);

}  // namespace netvane
