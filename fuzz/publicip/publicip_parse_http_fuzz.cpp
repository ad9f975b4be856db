// Any response: parsing never crashes, a body is never longer than the
// response, and an unchunked body is exactly what follows the headers.
// Whether a response is provably whole never crashes either, and more bytes
// never make a whole response less whole: a close can only cut an answer short.
#include <cstdlib>
#include <string_view>
#include <vector>

#include "netcore/publicip/http_exchange.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace netvane::PublicIPService;
    if (isProvablyWhole(std::span(data, size))) {
        std::vector<std::uint8_t> longer(data, data + size);
        longer.push_back('x');
        if (!isProvablyWhole(longer)) std::abort();
    }
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
