#include "support/fatal.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace netvane {

void fatal(const char* format, ...) {
    std::fputs("netvane: fatal: ", stderr);
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    std::fputc('\n', stderr);
    std::abort();
}

}  // namespace netvane
