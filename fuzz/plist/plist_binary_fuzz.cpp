// Any input: decode never crashes; whatever decodes re-encodes and decodes to
// an equal value (NaN aside, which compares unequal to itself). UIDs are
// read, so that their path is fuzzed too; refusing them is the same path
// with one more way to fail.
#include <cstdlib>

#include "support/plist/plist.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace netvane::plist;
    auto value = decodeBinary(std::span(data, size), {.uids = UIDs::read});
    if (!value) return 0;
    auto encoded = encodeBinary(*value);
    if (!encoded) std::abort();
    auto again = decodeBinary(*encoded, {.uids = UIDs::read});
    if (!again) std::abort();
    if (*again != *value && *encodeBinary(*again) != *encoded) std::abort();
    return 0;
}
