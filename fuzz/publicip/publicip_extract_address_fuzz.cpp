// Any body, with or without a key path: extraction never crashes and only
// ever returns an IP address. Input: a key path up to the first newline when
// the input starts with '.', then the body.
#include <cstdlib>
#include <string>

#include "netcore/publicip/http_exchange.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace netvane::PublicIPService;
    std::span<const std::uint8_t> body(data, size);
    std::optional<std::string> keyPath;
    if (size > 0 && data[0] == '.') {
        std::size_t newline = 1;
        while (newline < size && data[newline] != '\n') ++newline;
        keyPath = std::string(reinterpret_cast<const char*>(data) + 1, newline - 1);
        body = body.subspan(std::min(newline + 1, size));
    }
    const auto address = extractAddress(body, keyPath);
    if (address && !isIPAddress(*address)) std::abort();
    return 0;
}
