// A promise broken inside the program (a caller breaking a function's
// contract, a count that cannot overflow overflowing): the process stops at
// once and says what broke, as "netvane: fatal: <what>" on standard error.
// Never for input from outside, which is an Error (support/result.h).
#pragma once

namespace netvane {

[[noreturn]] void fatal(const char* format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace netvane
