// Property-list codec: binary ("bplist00") and XML, both directions.
//
// Decoding is strict and bounded: every offset, size and count is checked
// against the input before use, depth and object counts are capped, and a
// document may expand shared objects only so far; malformed input yields an
// Error in kPlistErrorDomain, never a crash or an outsized allocation.
// Encoding fails only for values a format cannot carry (invalid UTF-8 text,
// non-finite XML dates). All functions are reentrant.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "support/plist/value.h"
#include "support/result.h"

namespace netvane::plist {

inline constexpr const char* kPlistErrorDomain = "netvane.plist";

// Nesting deeper than this is refused: the decoders and the value's own
// destructor recurse, and no document of ours nests beyond a handful.
inline constexpr std::size_t kMaxDepth = 512;
// A binary document may reference a shared object many times; the decoded
// tree may hold at most this many bytes per input byte (plus kExpansionSlack)
// so that a small file cannot make us build an enormous one.
inline constexpr std::size_t kExpansionFactor = 64;
inline constexpr std::size_t kExpansionSlack = 1 << 20;

enum class Format { Binary, Xml };

// UIDs are the object references of keyed archives. No document of ours holds
// one, so decoding refuses them (as any unknown marker) unless asked to read
// them: then binary UIDs of one to eight bytes, and in XML the one-entry
// dictionary {"CF$UID": n} with a non-negative integer, become UID values.
// Encoding writes a UID in the same forms.
enum class UIDs { refused, read };

// What one binary document may decode to. Callers that read input from
// another user (IPC frames) pass tighter limits than the file defaults.
struct DecodeLimits {
    std::size_t expansionFactor = kExpansionFactor;
    std::size_t expansionSlack = kExpansionSlack;
    // Objects decoded, counting each repeat of a shared one.
    std::size_t maxObjects = SIZE_MAX;
    UIDs uids = UIDs::refused;
};

Result<Value> decode(std::span<const std::uint8_t> bytes, UIDs uids = UIDs::refused);  // either format, by its header
Result<Value> decodeBinary(std::span<const std::uint8_t> bytes, const DecodeLimits& limits = {});
Result<Value> decodeXml(std::span<const std::uint8_t> bytes, UIDs uids = UIDs::refused);

Result<Data> encodeBinary(const Value& value);
// The same document written into `out`, replacing what it held but keeping
// its memory: a caller that encodes again and again pays for fresh pages
// once, not on every document. On failure `out` is left empty.
Status encodeBinary(const Value& value, Data& out);

// Data made while the document is written rather than before, for values
// too large to be worth building in memory first. In the value an empty Data
// stands in for it, recognised by its address. `fill` writes the bytes
// [offset, offset + out.size()) of the data; it is handed whole chunks of
// kDeferredChunkBytes, except for the last, shorter one.
inline constexpr std::size_t kDeferredChunkBytes = 512 * 1024;
struct DeferredData {
    const Data* placeholder = nullptr;
    std::size_t size = 0;
    std::function<void(std::size_t offset, std::span<std::uint8_t> out)> fill;
};

// A binary document as pieces to write in order: our own bytes, data values
// of at least kBorrowedDataBytes referenced where they lie, so big blobs go
// from the value to the file without an intermediate copy, and deferred data.
// IMPORTANT: the pieces point into the encoded value and the deferred data,
// which must outlive them.
inline constexpr std::size_t kBorrowedDataBytes = 64 * 1024;
struct EncodedPieces {
    struct Piece {
        std::span<const std::uint8_t> bytes;
        const DeferredData* deferred = nullptr;  // when set, the piece is that data
    };
    Data buffer;
    std::vector<Piece> pieces;

    std::size_t size() const;
    // Hands the whole document to `sink` in order, deferred data a chunk at
    // a time; stops at the first error.
    Status writeTo(const std::function<Status(std::span<const std::uint8_t>)>& sink) const;
};
Result<EncodedPieces> encodeBinaryPieces(const Value& value, std::span<const DeferredData> deferred = {});
Result<std::string> encodeXml(const Value& value);
Result<Data> encode(const Value& value, Format format);

bool isBinary(std::span<const std::uint8_t> bytes);

}  // namespace netvane::plist
