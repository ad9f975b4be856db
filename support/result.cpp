#include "support/result.h"

#include <cstring>

namespace netvane {
namespace {

// Two strerror_r exist: the GNU one returns the text, which may be a static
// string rather than the buffer; the POSIX one returns 0 and fills the buffer.
// Only one of these is called, depending on the C library.
[[maybe_unused]] const char* messageOf(const char* gnuResult, const char*) { return gnuResult; }
[[maybe_unused]] const char* messageOf(int posixResult, const char* buffer) {
    return posixResult == 0 || buffer[0] != '\0' ? buffer : "Unknown error";
}

}  // namespace

Error posixError(int errnoValue) {
    char buffer[256] = {};
    return Error{kPosixErrorDomain, errnoValue, messageOf(strerror_r(errnoValue, buffer, sizeof buffer), buffer)};
}

Error posixError(int errnoValue, const std::string& context) {
    Error error = posixError(errnoValue);
    error.message = context + ": " + error.message;
    return error;
}

}  // namespace netvane
