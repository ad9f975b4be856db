// Binary property-list decoder. Every read is bounds-checked against the
// input; objects being decoded are marked so a reference cycle is an error;
// the decoded size is budgeted so shared objects cannot blow up memory.
#include <cstring>
#include <limits>
#include <string>

#include "support/plist/plist.h"
#include "support/plist/unicode.h"

namespace netvane::plist {
namespace {

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;

Error malformed(std::string what) { return Error{kPlistErrorDomain, 1, "malformed binary property list: " + what}; }

std::uint64_t readBigEndian(const std::uint8_t* p, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) value = (value << 8) | p[i];
    return value;
}

class BinaryReader {
public:
    explicit BinaryReader(std::span<const std::uint8_t> bytes)
        : bytes_(bytes), budget_(bytes.size() * kExpansionFactor + kExpansionSlack) {}

    Result<Value> run() {
        if (bytes_.size() < kHeaderSize + kTrailerSize) return malformed("too short");
        if (std::memcmp(bytes_.data(), "bplist0", 7) != 0) return malformed("bad header");
        const std::uint8_t* trailer = bytes_.data() + bytes_.size() - kTrailerSize;
        offsetSize_ = trailer[6];
        refSize_ = trailer[7];
        const std::uint64_t objectCount = readBigEndian(trailer + 8, 8);
        const std::uint64_t top = readBigEndian(trailer + 16, 8);
        const std::uint64_t tableOffset = readBigEndian(trailer + 24, 8);
        if (offsetSize_ < 1 || offsetSize_ > 8 || refSize_ < 1 || refSize_ > 8) return malformed("bad integer sizes");
        const std::uint64_t tableEnd = bytes_.size() - kTrailerSize;
        if (tableOffset < kHeaderSize || tableOffset > tableEnd) return malformed("offset table out of range");
        if (objectCount == 0 || objectCount > (tableEnd - tableOffset) / offsetSize_) {
            return malformed("object count does not fit the offset table");
        }
        if (top >= objectCount) return malformed("top object out of range");
        objectCount_ = objectCount;
        objectsEnd_ = tableOffset;
        offsets_ = bytes_.data() + tableOffset;
        state_.assign(objectCount, 0);
        return decodeObject(top, 0);
    }

private:
    Result<std::size_t> objectOffset(std::uint64_t ref) {
        if (ref >= objectCount_) return malformed("object reference out of range");
        const std::uint64_t offset = readBigEndian(offsets_ + ref * offsetSize_, offsetSize_);
        if (offset < kHeaderSize || offset >= objectsEnd_) return malformed("object offset out of range");
        return static_cast<std::size_t>(offset);
    }

    bool spend(std::size_t cost) {
        if (cost > budget_) return false;
        budget_ -= cost;
        return true;
    }

    // Reads the length of a variable-size object: the low nibble, or when it is
    // 0xF, an integer object that follows the marker.
    Result<std::uint64_t> readLength(std::size_t& pos, std::uint8_t marker) {
        const std::uint8_t nibble = marker & 0x0F;
        if (nibble != 0x0F) return std::uint64_t{nibble};
        if (pos >= objectsEnd_) return malformed("truncated length");
        const std::uint8_t intMarker = bytes_[pos++];
        if ((intMarker & 0xF0) != 0x10 || (intMarker & 0x0F) > 3) return malformed("bad length marker");
        const std::size_t width = std::size_t{1} << (intMarker & 0x0F);
        if (objectsEnd_ - pos < width) return malformed("truncated length");
        const std::uint64_t length = readBigEndian(&bytes_[pos], width);
        pos += width;
        if (width == 8 && length > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            return malformed("negative length");
        }
        return length;
    }

    // Checks that `count` items of `width` bytes starting at pos lie inside the
    // object area, without overflowing.
    bool fits(std::size_t pos, std::uint64_t count, std::size_t width) const {
        return count <= (objectsEnd_ - pos) / width;
    }

    Result<Value> decodeObject(std::uint64_t ref, std::size_t depth) {
        if (depth > kMaxDepth) return malformed("nesting too deep");
        auto offset = objectOffset(ref);
        if (!offset) return offset.error();
        if (state_[ref]) return malformed("reference cycle");
        std::size_t pos = *offset;
        const std::uint8_t marker = bytes_[pos++];
        const std::uint8_t high = marker >> 4;
        if (!spend(sizeof(Value))) return malformed("document expands beyond its budget");

        switch (high) {
        case 0x0:
            if (marker == 0x08) return Value(false);
            if (marker == 0x09) return Value(true);
            return malformed("unsupported marker");
        case 0x1: return decodeInteger(pos, marker);
        case 0x2: {
            const std::size_t width = std::size_t{1} << (marker & 0x0F);
            if (width != 4 && width != 8) return malformed("bad real size");
            if (!fits(pos, 1, width)) return malformed("truncated real");
            const std::uint64_t bits = readBigEndian(&bytes_[pos], width);
            if (width == 4) {
                float f;
                const auto narrow = static_cast<std::uint32_t>(bits);
                std::memcpy(&f, &narrow, 4);
                return Value(static_cast<double>(f));
            }
            double d;
            std::memcpy(&d, &bits, 8);
            return Value(d);
        }
        case 0x3: {
            if (marker != 0x33) return malformed("bad date marker");
            if (!fits(pos, 1, 8)) return malformed("truncated date");
            const std::uint64_t bits = readBigEndian(&bytes_[pos], 8);
            double d;
            std::memcpy(&d, &bits, 8);
            return Value(Date{d});
        }
        case 0x4: {
            auto length = readLength(pos, marker);
            if (!length) return length.error();
            if (!fits(pos, *length, 1)) return malformed("data runs past the end");
            if (!spend(*length)) return malformed("document expands beyond its budget");
            const std::uint8_t* start = &bytes_[pos];
            return Value(Data(start, start + *length));
        }
        case 0x5: {
            auto length = readLength(pos, marker);
            if (!length) return length.error();
            if (!fits(pos, *length, 1)) return malformed("string runs past the end");
            if (!spend(*length)) return malformed("document expands beyond its budget");
            const auto* start = reinterpret_cast<const char*>(&bytes_[pos]);
            for (std::uint64_t i = 0; i < *length; ++i) {
                if (static_cast<unsigned char>(start[i]) >= 0x80) return malformed("non-ASCII byte in ASCII string");
            }
            return Value(std::string(start, *length));
        }
        case 0x6: {
            auto length = readLength(pos, marker);
            if (!length) return length.error();
            if (!fits(pos, *length, 2)) return malformed("string runs past the end");
            if (!spend(*length * 3)) return malformed("document expands beyond its budget");
            auto text = utf16BigEndianToUtf8(&bytes_[pos], *length);
            if (!text) return malformed("invalid UTF-16 string");
            return Value(std::move(*text));
        }
        case 0xA: return decodeArray(ref, pos, marker, depth);
        case 0xD: return decodeDictionary(ref, pos, marker, depth);
        default: return malformed("unsupported marker");
        }
    }

    Result<Value> decodeInteger(std::size_t pos, std::uint8_t marker) {
        const unsigned exponent = marker & 0x0F;
        if (exponent > 4) return malformed("bad integer size");
        const std::size_t width = std::size_t{1} << exponent;
        if (!fits(pos, 1, width)) return malformed("truncated integer");
        if (width <= 4) return Value(static_cast<std::int64_t>(readBigEndian(&bytes_[pos], width)));
        if (width == 8) return Value(static_cast<std::int64_t>(readBigEndian(&bytes_[pos], 8)));
        // A 16-byte integer is signed 128-bit; we carry int64 and uint64 only.
        const std::uint64_t high = readBigEndian(&bytes_[pos], 8);
        const std::uint64_t low = readBigEndian(&bytes_[pos + 8], 8);
        if (high == 0) return Value(static_cast<unsigned long long>(low));
        if (high == std::numeric_limits<std::uint64_t>::max() && (low >> 63) == 1) {
            return Value(static_cast<std::int64_t>(low));
        }
        return malformed("integer out of range");
    }

    Result<Value> decodeArray(std::uint64_t ref, std::size_t pos, std::uint8_t marker, std::size_t depth) {
        auto count = readLength(pos, marker);
        if (!count) return count.error();
        if (!fits(pos, *count, refSize_)) return malformed("array runs past the end");
        if (!spend(*count * sizeof(Value))) return malformed("document expands beyond its budget");
        Array array;
        array.reserve(*count);
        state_[ref] = 1;
        for (std::uint64_t i = 0; i < *count; ++i) {
            auto child = decodeObject(readBigEndian(&bytes_[pos + i * refSize_], refSize_), depth + 1);
            if (!child) return child.error();
            array.push_back(std::move(*child));
        }
        state_[ref] = 0;
        return Value(std::move(array));
    }

    Result<Value> decodeDictionary(std::uint64_t ref, std::size_t pos, std::uint8_t marker, std::size_t depth) {
        auto count = readLength(pos, marker);
        if (!count) return count.error();
        if (*count > std::numeric_limits<std::uint64_t>::max() / 2 || !fits(pos, *count * 2, refSize_)) {
            return malformed("dictionary runs past the end");
        }
        if (!spend(*count * sizeof(Dictionary::Entry))) return malformed("document expands beyond its budget");
        Dictionary dictionary;
        dictionary.reserve(*count);
        state_[ref] = 1;
        const std::size_t valuesPos = pos + *count * refSize_;
        for (std::uint64_t i = 0; i < *count; ++i) {
            auto key = decodeObject(readBigEndian(&bytes_[pos + i * refSize_], refSize_), depth + 1);
            if (!key) return key.error();
            std::string* keyText = key->get<std::string>();
            if (!keyText) return malformed("dictionary key is not a string");
            auto value = decodeObject(readBigEndian(&bytes_[valuesPos + i * refSize_], refSize_), depth + 1);
            if (!value) return value.error();
            dictionary.append(std::move(*keyText), std::move(*value));
        }
        state_[ref] = 0;
        return Value(std::move(dictionary));
    }

    std::span<const std::uint8_t> bytes_;
    std::size_t budget_;
    std::size_t offsetSize_ = 0;
    std::size_t refSize_ = 0;
    std::uint64_t objectCount_ = 0;
    std::size_t objectsEnd_ = 0;
    const std::uint8_t* offsets_ = nullptr;
    std::vector<std::uint8_t> state_;  // 1 while an object's container is being decoded
};

}  // namespace

bool isBinary(std::span<const std::uint8_t> bytes) {
    return bytes.size() >= 8 && std::memcmp(bytes.data(), "bplist0", 7) == 0;
}

Result<Value> decodeBinary(std::span<const std::uint8_t> bytes) { return BinaryReader(bytes).run(); }

Result<Value> decode(std::span<const std::uint8_t> bytes) {
    return isBinary(bytes) ? decodeBinary(bytes) : decodeXml(bytes);
}

}  // namespace netvane::plist
