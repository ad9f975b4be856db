// Any chunked body: dechunking never crashes and never yields more bytes than
// it was given.
#include <cstdlib>

#include "netcore/publicip/http_exchange.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto joined = netvane::PublicIPService::dechunk(std::span(data, size));
    if (joined && joined->size() > size) std::abort();
    return 0;
}
