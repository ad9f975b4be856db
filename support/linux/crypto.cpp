// SHA-256 alone in its file: a program that only needs random bytes then
// links none of the cryptographic library.
#include "support/crypto.h"

#include <openssl/evp.h>

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

}  // namespace netvane
