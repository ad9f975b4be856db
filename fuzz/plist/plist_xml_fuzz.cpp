// Any input: decode never crashes; a decoded value that XML can carry
// re-encodes and decodes to an equal value (dates lose their fraction, so the
// second round trip must be exact). UIDs are read, to fuzz their form too.
#include <cstdlib>

#include "support/plist/plist.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace netvane::plist;
    auto value = decodeXml(std::span(data, size), UIDs::read);
    if (!value) return 0;
    auto text = encodeXml(*value);
    if (!text) return 0;  // e.g. control characters that XML cannot carry
    auto bytes = std::span(reinterpret_cast<const std::uint8_t*>(text->data()), text->size());
    auto again = decodeXml(bytes, UIDs::read);
    if (!again) std::abort();
    auto text2 = encodeXml(*again);
    if (!text2 || *text2 != *text) std::abort();
    return 0;
}
