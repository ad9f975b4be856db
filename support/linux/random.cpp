#include "support/crypto.h"

#include <sys/random.h>

#include <cerrno>

namespace netvane {

Status secureRandomBytes(std::span<std::uint8_t> out) {
    std::size_t filled = 0;
    while (filled < out.size()) {
        const ssize_t n = ::getrandom(out.data() + filled, out.size() - filled, 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            return posixError(errno, "getrandom");
        }
        filled += static_cast<std::size_t>(n);
    }
    return {};
}

}  // namespace netvane
