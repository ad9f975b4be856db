// Binary property-list decoder. Every read is bounds-checked against the
// input; objects being decoded are marked so a reference cycle is an error;
// the decoded size is budgeted so shared objects cannot blow up memory.
// Values are decoded in place into their final slot: no temporaries to move.
#include <cstring>
#include <limits>
#include <string>

#include "support/plist/plist.h"
#include "support/unicode.h"

namespace netvane::plist {
namespace {

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;

// Hot: every reference and offset goes through here, so the common widths
// are single loads.
std::uint64_t readBigEndian(const std::uint8_t* p, std::size_t width) {
    switch (width) {
    case 1: return p[0];
    case 2: return (std::uint64_t{p[0]} << 8) | p[1];
    case 4: {
        std::uint32_t v;
        std::memcpy(&v, p, 4);
        return __builtin_bswap32(v);
    }
    case 8: {
        std::uint64_t v;
        std::memcpy(&v, p, 8);
        return __builtin_bswap64(v);
    }
    default: {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < width; ++i) value = (value << 8) | p[i];
        return value;
    }
    }
}

class BinaryReader {
public:
    BinaryReader(std::span<const std::uint8_t> bytes, const DecodeLimits& limits)
        : bytes_(bytes),
          uids_(limits.uids),
          budget_(bytes.size() * limits.expansionFactor + limits.expansionSlack),
          objectsLeft_(limits.maxObjects) {}

    Result<Value> run() {
        Value root;
        if (!start() || !decodeObject(top_, 0, root)) {
            return Error{kPlistErrorDomain, 1, std::string("malformed binary property list: ") + problem_};
        }
        return root;
    }

private:
    bool fail(const char* problem) {
        problem_ = problem;
        return false;
    }

    bool start() {
        if (bytes_.size() < kHeaderSize + kTrailerSize) return fail("too short");
        if (std::memcmp(bytes_.data(), "bplist0", 7) != 0) return fail("bad header");
        const std::uint8_t* trailer = bytes_.data() + bytes_.size() - kTrailerSize;
        offsetSize_ = trailer[6];
        refSize_ = trailer[7];
        const std::uint64_t objectCount = readBigEndian(trailer + 8, 8);
        top_ = readBigEndian(trailer + 16, 8);
        const std::uint64_t tableOffset = readBigEndian(trailer + 24, 8);
        if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8) return fail("bad integer sizes");
        const std::uint64_t tableEnd = bytes_.size() - kTrailerSize;
        if (tableOffset < kHeaderSize || tableOffset > tableEnd) return fail("offset table out of range");
        if (objectCount == 0 || objectCount > (tableEnd - tableOffset) / offsetSize_) {
            return fail("object count does not fit the offset table");
        }
        if (top_ >= objectCount) return fail("top object out of range");
        objectCount_ = objectCount;
        objectsEnd_ = tableOffset;
        offsets_ = bytes_.data() + tableOffset;
        active_.assign(objectCount, 0);
        return true;
    }

    bool spend(std::uint64_t cost) {
        if (cost > budget_) return fail("document expands beyond its budget");
        budget_ -= cost;
        return true;
    }

    // Checks that `count` items of `width` bytes starting at pos lie inside the
    // object area, without overflowing.
    bool fits(std::size_t pos, std::uint64_t count, std::size_t width) const {
        return count <= (objectsEnd_ - pos) / width;
    }

    // Where object `ref` starts, past its marker byte.
    bool locate(std::uint64_t ref, std::size_t& pos, std::uint8_t& marker) {
        if (ref >= objectCount_) return fail("object reference out of range");
        const std::uint64_t offset = readBigEndian(offsets_ + ref * offsetSize_, offsetSize_);
        if (offset < kHeaderSize || offset >= objectsEnd_) return fail("object offset out of range");
        pos = static_cast<std::size_t>(offset);
        marker = bytes_[pos++];
        return true;
    }

    // The length of a variable-size object: the low nibble, or when it is 0xF,
    // an integer object that follows the marker.
    bool readLength(std::size_t& pos, std::uint8_t marker, std::uint64_t& length) {
        const std::uint8_t nibble = marker & 0x0F;
        if (nibble != 0x0F) {
            length = nibble;
            return true;
        }
        if (pos >= objectsEnd_) return fail("truncated length");
        const std::uint8_t intMarker = bytes_[pos++];
        if ((intMarker & 0xF0) != 0x10 || (intMarker & 0x0F) > 3) return fail("bad length marker");
        const std::size_t width = std::size_t{1} << (intMarker & 0x0F);
        if (!fits(pos, 1, width)) return fail("truncated length");
        length = readBigEndian(&bytes_[pos], width);
        pos += width;
        return true;
    }

    // Strings serve as values and as dictionary keys.
    bool decodeString(std::size_t pos, std::uint8_t marker, std::string& out) {
        std::uint64_t length;
        if (!readLength(pos, marker, length)) return false;
        if ((marker >> 4) == 0x5) {
            if (!fits(pos, length, 1)) return fail("string runs past the end");
            if (!spend(length)) return false;
            const auto* start = reinterpret_cast<const char*>(&bytes_[pos]);
            if (!isAscii(std::string_view(start, length))) return fail("non-ASCII byte in ASCII string");
            out.assign(start, length);
            return true;
        }
        if (!fits(pos, length, 2)) return fail("string runs past the end");
        if (!spend(length * 3)) return false;
        auto text = utf16BigEndianToUtf8(&bytes_[pos], length);
        if (!text) return fail("invalid UTF-16 string");
        out = std::move(*text);
        return true;
    }

    bool decodeObject(std::uint64_t ref, std::size_t depth, Value& out) {
        if (depth > kMaxDepth) return fail("nesting too deep");
        std::size_t pos;
        std::uint8_t marker;
        if (!locate(ref, pos, marker)) return false;
        if (active_[ref]) return fail("reference cycle");
        if (objectsLeft_ == 0) return fail("too many objects");
        --objectsLeft_;
        if (!spend(sizeof(Value))) return false;

        switch (marker >> 4) {
        case 0x0:
            if (marker != 0x08 && marker != 0x09) return fail("unsupported marker");
            out = Value(marker == 0x09);
            return true;
        case 0x1: return decodeInteger(pos, marker, out);
        case 0x2: {
            const std::size_t width = std::size_t{1} << (marker & 0x0F);
            if (width != 4 && width != 8) return fail("bad real size");
            if (!fits(pos, 1, width)) return fail("truncated real");
            const std::uint64_t bits = readBigEndian(&bytes_[pos], width);
            if (width == 4) {
                float f;
                const auto narrow = static_cast<std::uint32_t>(bits);
                std::memcpy(&f, &narrow, 4);
                out = Value(static_cast<double>(f));
            } else {
                double d;
                std::memcpy(&d, &bits, 8);
                out = Value(d);
            }
            return true;
        }
        case 0x3: {
            if (marker != 0x33) return fail("bad date marker");
            if (!fits(pos, 1, 8)) return fail("truncated date");
            const std::uint64_t bits = readBigEndian(&bytes_[pos], 8);
            double d;
            std::memcpy(&d, &bits, 8);
            out = Value(Date{d});
            return true;
        }
        case 0x4: {
            std::uint64_t length;
            if (!readLength(pos, marker, length)) return false;
            if (!fits(pos, length, 1)) return fail("data runs past the end");
            if (!spend(length)) return false;
            const std::uint8_t* start = &bytes_[pos];
            out.emplace<Data>(start, start + length);
            return true;
        }
        case 0x5:
        case 0x6: return decodeString(pos, marker, out.emplace<std::string>());
        case 0x8: {
            if (uids_ != UIDs::read) return fail("unsupported marker");
            const std::size_t width = (marker & 0x0F) + std::size_t{1};
            if (width > 8) return fail("bad UID size");
            if (!fits(pos, 1, width)) return fail("truncated UID");
            out = Value(UID{readBigEndian(&bytes_[pos], width)});
            return true;
        }
        case 0xA: return decodeArray(ref, pos, marker, depth, out);
        case 0xD: return decodeDictionary(ref, pos, marker, depth, out);
        default: return fail("unsupported marker");
        }
    }

    bool decodeInteger(std::size_t pos, std::uint8_t marker, Value& out) {
        const unsigned exponent = marker & 0x0F;
        if (exponent > 4) return fail("bad integer size");
        const std::size_t width = std::size_t{1} << exponent;
        if (!fits(pos, 1, width)) return fail("truncated integer");
        if (width <= 8) {
            // 1, 2 and 4 bytes are unsigned; 8 bytes are two's complement.
            out = Value(static_cast<std::int64_t>(readBigEndian(&bytes_[pos], width)));
            return true;
        }
        // A 16-byte integer is signed 128-bit; we carry int64 and uint64 only.
        const std::uint64_t high = readBigEndian(&bytes_[pos], 8);
        const std::uint64_t low = readBigEndian(&bytes_[pos + 8], 8);
        if (high == 0) {
            out = Value(static_cast<unsigned long long>(low));
        } else if (high == std::numeric_limits<std::uint64_t>::max() && (low >> 63) == 1) {
            out = Value(static_cast<std::int64_t>(low));
        } else {
            return fail("integer out of range");
        }
        return true;
    }

    std::uint64_t refAt(std::size_t pos, std::uint64_t index) const {
        return readBigEndian(&bytes_[pos + index * refSize_], refSize_);
    }

    bool decodeArray(std::uint64_t ref, std::size_t pos, std::uint8_t marker, std::size_t depth, Value& out) {
        std::uint64_t count;
        if (!readLength(pos, marker, count)) return false;
        if (!fits(pos, count, refSize_)) return fail("array runs past the end");
        if (!spend(count * sizeof(Value))) return false;
        Array& array = out.emplace<Array>(count);
        active_[ref] = 1;
        for (std::uint64_t i = 0; i < count; ++i) {
            if (!decodeObject(refAt(pos, i), depth + 1, array[i])) return false;
        }
        active_[ref] = 0;
        return true;
    }

    bool decodeDictionary(std::uint64_t ref, std::size_t pos, std::uint8_t marker, std::size_t depth, Value& out) {
        std::uint64_t count;
        if (!readLength(pos, marker, count)) return false;
        if (count > std::numeric_limits<std::uint64_t>::max() / 2 || !fits(pos, count * 2, refSize_)) {
            return fail("dictionary runs past the end");
        }
        if (!spend(count * sizeof(Dictionary::Entry))) return false;
        Dictionary& dictionary = out.emplace<Dictionary>();
        dictionary.reserve(count);
        active_[ref] = 1;
        const std::size_t valuesPos = pos + count * refSize_;
        for (std::uint64_t i = 0; i < count; ++i) {
            std::size_t keyPos;
            std::uint8_t keyMarker;
            if (!locate(refAt(pos, i), keyPos, keyMarker)) return false;
            if ((keyMarker >> 4) != 0x5 && (keyMarker >> 4) != 0x6) return fail("dictionary key is not a string");
            if (!spend(sizeof(Value))) return false;
            auto& [key, value] = dictionary.appendEmpty();
            if (!decodeString(keyPos, keyMarker, key)) return false;
            if (!decodeObject(refAt(valuesPos, i), depth + 1, value)) return false;
        }
        active_[ref] = 0;
        return true;
    }

    std::span<const std::uint8_t> bytes_;
    UIDs uids_;
    std::uint64_t budget_;
    std::size_t objectsLeft_;
    const char* problem_ = "";
    std::size_t offsetSize_ = 0;
    std::size_t refSize_ = 0;
    std::uint64_t objectCount_ = 0;
    std::uint64_t top_ = 0;
    std::size_t objectsEnd_ = 0;
    const std::uint8_t* offsets_ = nullptr;
    std::vector<std::uint8_t> active_;  // 1 while a container is being decoded: a cycle
};

}  // namespace

bool isBinary(std::span<const std::uint8_t> bytes) {
    return bytes.size() >= 8 && std::memcmp(bytes.data(), "bplist0", 7) == 0;
}

Result<Value> decodeBinary(std::span<const std::uint8_t> bytes, const DecodeLimits& limits) {
    return BinaryReader(bytes, limits).run();
}

Result<Value> decode(std::span<const std::uint8_t> bytes, UIDs uids) {
    DecodeLimits limits;
    limits.uids = uids;
    return isBinary(bytes) ? decodeBinary(bytes, limits) : decodeXml(bytes, uids);
}

}  // namespace netvane::plist
