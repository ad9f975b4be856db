#include "support/result.h"

#include <cstring>

namespace netvane {

Error posixError(int errnoValue) {
    char buffer[256];
    // The GNU strerror_r may return a static string instead of filling buffer.
    const char* text = strerror_r(errnoValue, buffer, sizeof buffer);
    return Error{kPosixErrorDomain, errnoValue, text};
}

Error posixError(int errnoValue, const std::string& context) {
    Error error = posixError(errnoValue);
    error.message = context + ": " + error.message;
    return error;
}

}  // namespace netvane
