#include "support/crypto.h"

#include <openssl/evp.h>
#include <sys/random.h>

#include <cerrno>
#include <cstdlib>

namespace netvane {

Sha256Digest sha256(std::span<const std::uint8_t> bytes) {
    Sha256Digest digest{};
    unsigned int length = 0;
    // EVP_Digest only fails on allocation failure, which we treat like any other
    // out-of-memory condition.
    if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) std::abort();
    return digest;
}

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
