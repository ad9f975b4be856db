// Any response: parsing never crashes, a body is never longer than the
// response, and an unchunked body is exactly what follows the headers.
#include <cstdlib>
#include <string_view>

#include "netcore/publicip/http_exchange.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace netvane::PublicIPService;
    const auto body = parseHTTP(std::span(data, size));
    if (!body) return 0;
    if (body->size() > size) std::abort();
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const std::size_t end = text.find("\r\n\r\n");
    if (end == std::string_view::npos) std::abort();
    std::string head(text.substr(0, end));
    for (char& c : head) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c + 32 : c);
    if (head.find("chunked") == std::string::npos &&
        std::string_view(reinterpret_cast<const char*>(body->data()), body->size()) != text.substr(end + 4)) {
        std::abort();
    }
    return 0;
}
