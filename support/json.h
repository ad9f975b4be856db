// JSON text for command-line output, written from a property-list value:
// dictionaries keep their order, data becomes Base64 text, dates become ISO
// 8601 UTC text with milliseconds, non-finite reals become null.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "support/plist/value.h"

namespace netvane {

// JSON text written as it goes, for output too large to build as a value
// first. The caller keeps the nesting right: a key only inside an object and
// before each of its values. Pretty output indents by two spaces and ends
// with a newline.
class JsonWriter {
public:
    explicit JsonWriter(bool pretty = true);

    void beginObject() { open('{'); }
    void endObject() { close('}'); }
    void beginArray() { open('['); }
    void endArray() { close(']'); }
    void key(std::string_view name);

    void string(std::string_view text);
    void boolean(bool value);
    void number(std::int64_t n);
    void number(std::uint64_t n);
    void number(double n);  // null when not finite
    void value(const plist::Value& value);

    // The text so far; the writer is spent.
    std::string take();
    // Writes the text so far to a stream and forgets it, so that a long
    // document needs no more memory than a piece of it; false when the
    // stream refused.
    bool flushTo(std::FILE* stream);
    // The text so far, which the writer forgets and goes on from.
    std::string takePiece();
    std::size_t pending() const { return out_.size(); }

private:
    template <class Number>
    void number(Number n);
    void element();
    void open(char bracket);
    void close(char bracket);
    void newline();

    bool pretty_;
    bool first_ = true;      // nothing written yet in the innermost container
    bool afterKey_ = false;  // the next value belongs to the key just written
    std::size_t depth_ = 0;
    std::string out_;
};

// Pretty output indents by two spaces; compact output has no whitespace.
std::string toJSON(const plist::Value& value, bool pretty = true);

}  // namespace netvane
