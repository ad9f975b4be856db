// JSON text for command-line output, written from a property-list value:
// dictionaries keep their order, data becomes Base64 text, dates become ISO
// 8601 UTC text with milliseconds, non-finite reals become null.
#pragma once

#include <string>

#include "support/plist/value.h"

namespace netvane {

// Pretty output indents by two spaces; compact output has no whitespace.
std::string toJSON(const plist::Value& value, bool pretty = true);

// JSON string literal (with quotes) for UTF-8 text.
std::string jsonQuote(std::string_view text);

}  // namespace netvane
