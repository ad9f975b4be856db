// Hints to the kernel about large buffers we are about to fill.
#pragma once

#include <cstddef>

namespace netvane {

// Buffers at least this large are worth backing with huge pages.
inline constexpr std::size_t kLargeBufferBytes = std::size_t{4} << 20;
// Buffers at least this large are worth mapping in with one call.
inline constexpr std::size_t kPrefaultBytes = std::size_t{64} << 10;

// Maps in the untouched buffer [data, data+size) at once rather than page by
// page as it is first written: under a hypervisor each such trap costs
// several times the zeroing of its page, and a reading of a few hundred
// interfaces fills some hundred pages. Only for a buffer about to be filled
// whole; only a hint, ignored where the system does not offer it or the
// buffer is smaller than kPrefaultBytes.
void prefaultBuffer(void* data, std::size_t size);

// Asks for huge pages behind the untouched buffer [data, data+size), and for
// the buffer to be mapped in at once rather than page by page as it is first
// written. Only a hint: ignored where the system does not offer it. The
// buffer is about to be filled whole, so mapping all of it wastes nothing.
void adviseLargeBuffer(void* data, std::size_t size);

}  // namespace netvane
