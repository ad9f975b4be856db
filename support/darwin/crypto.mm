#include "support/crypto.h"

#include <CommonCrypto/CommonDigest.h>
#include <Foundation/Foundation.h>
#include <Security/Security.h>

#include "support/darwin/foundation_values.h"

namespace netvane {

Sha256Digest sha256(std::span<const std::uint8_t> bytes) {
    Sha256Digest digest{};
    CC_SHA256_CTX context;
    CC_SHA256_Init(&context);
    // CC_LONG is 32 bits: larger inputs go in pieces.
    constexpr std::size_t kPiece = std::size_t{1} << 30;
    for (std::size_t offset = 0; offset < bytes.size(); offset += kPiece) {
        const std::size_t length = std::min(kPiece, bytes.size() - offset);
        CC_SHA256_Update(&context, bytes.data() + offset, static_cast<CC_LONG>(length));
    }
    CC_SHA256_Final(digest.data(), &context);
    return digest;
}

Status secureRandomBytes(std::span<std::uint8_t> out) {
    if (out.empty()) return {};
    const int status = SecRandomCopyBytes(kSecRandomDefault, out.size(), out.data());
    if (status != errSecSuccess) return osStatusError(status, "SecRandomCopyBytes");
    return {};
}

}  // namespace netvane
