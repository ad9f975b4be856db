// Binary property-list encoder. Two passes: the first numbers the objects
// (sharing equal strings, integers and booleans, as the format intends) and
// sizes the output; the second writes objects, offset table and trailer into
// one buffer reserved up front, so large data values are copied exactly once.
// That buffer may be the caller's from an earlier document: fresh memory for a
// large one costs the kernel's mapping and zeroing, more than the copy itself.
#include <algorithm>
#include <cstring>
#include <limits>
#include <unordered_map>

#include "support/memory.h"
#include "support/plist/plist.h"
#include "support/unicode.h"

namespace netvane::plist {
namespace {

Error unencodable(std::string what) { return Error{kPlistErrorDomain, 2, "cannot encode property list: " + what}; }

std::size_t bytesFor(std::uint64_t value) {
    if (value <= 0xFF) return 1;
    if (value <= 0xFFFF) return 2;
    if (value <= 0xFFFFFFFFu) return 4;
    return 8;
}

class BinaryWriter {
public:
    // Data values of at least `borrowFrom` bytes are referenced, not copied.
    explicit BinaryWriter(std::size_t borrowFrom, std::span<const DeferredData> deferred = {}, Data reuse = {})
        : borrowFrom_(borrowFrom), out_(std::move(reuse)) {
        out_.clear();
        for (const DeferredData& data : deferred) deferred_.emplace(data.placeholder, &data);
    }

    Result<EncodedPieces> run(const Value& root) {
        auto top = flatten(root, 0);
        if (!top) return top.error();
        refSize_ = bytesFor(objects_.empty() ? 0 : objects_.size() - 1);
        const std::size_t needed = estimate_ - borrowedEstimate_ + refs_.size() * refSize_ + objects_.size() * 9 + 64;
        if (needed > out_.capacity()) {
            // The old block goes first: reserve alone would hold both at once.
            out_ = Data();
            out_.reserve(needed);
            adviseLargeBuffer(out_.data(), out_.capacity());
        }
        out_.insert(out_.end(), {'b', 'p', 'l', 'i', 's', 't', '0', '0'});

        std::vector<std::uint64_t> offsets;
        offsets.reserve(objects_.size());
        for (const Object& object : objects_) {
            offsets.push_back(position());
            if (auto written = write(object); !written.ok()) return written.error();
        }

        const std::uint64_t tableOffset = position();
        const std::size_t offsetSize = bytesFor(tableOffset);
        for (std::uint64_t offset : offsets) putBigEndian(offset, offsetSize);
        out_.insert(out_.end(), 6, 0);
        out_.push_back(static_cast<std::uint8_t>(offsetSize));
        out_.push_back(static_cast<std::uint8_t>(refSize_));
        putBigEndian(objects_.size(), 8);
        putBigEndian(*top, 8);
        putBigEndian(tableOffset, 8);
        return finish();
    }

    // What a failed run leaves of the buffer, so its memory is not lost.
    Data takeBuffer() { return std::move(out_); }

private:
    struct Object {
        const Value* value;        // null for strings, which may be keys without a Value
        const std::string* text;   // strings only
        std::size_t firstRef = 0;  // containers: index into refs_ of their children
    };

    Result<std::uint64_t> flatten(const Value& value, std::size_t depth) {
        if (depth > kMaxDepth) return unencodable("nesting too deep");
        switch (value.type()) {
        case Value::Type::String: return flattenString(*value.string());
        case Value::Type::Boolean: {
            std::int64_t& slot = *value.boolean() ? trueRef_ : falseRef_;
            if (slot < 0) slot = static_cast<std::int64_t>(add(value, 1));
            return static_cast<std::uint64_t>(slot);
        }
        case Value::Type::Integer: {
            const std::int64_t number = *value.int64();
            auto [it, inserted] = integers_.try_emplace(number, objects_.size());
            if (inserted) add(value, 9);
            return it->second;
        }
        case Value::Type::Data: {
            if (const DeferredData* deferred = deferredFor(*value.data())) {
                borrowedEstimate_ += deferred->size;
                return add(value, deferred->size + 9);
            }
            const std::size_t size = value.data()->size();
            if (size >= borrowFrom_) borrowedEstimate_ += size;
            return add(value, size + 9);
        }
        case Value::Type::Array: {
            const Array& array = *value.array();
            const std::uint64_t id = add(value, 9);
            const std::size_t first = refs_.size();
            objects_.back().firstRef = first;
            refs_.resize(first + array.size());
            for (std::size_t i = 0; i < array.size(); ++i) {
                auto child = flatten(array[i], depth + 1);
                if (!child) return child.error();
                refs_[first + i] = *child;
            }
            return id;
        }
        case Value::Type::Dictionary: {
            const Dictionary& dictionary = *value.dictionary();
            const std::uint64_t id = add(value, 9);
            const std::size_t first = refs_.size();
            const std::size_t count = dictionary.size();
            objects_.back().firstRef = first;
            refs_.resize(first + 2 * count);
            std::size_t i = 0;
            for (const auto& [key, child] : dictionary) {
                auto keyRef = flattenString(key);
                if (!keyRef) return keyRef.error();
                refs_[first + i] = *keyRef;
                auto valueRef = flatten(child, depth + 1);
                if (!valueRef) return valueRef.error();
                refs_[first + count + i] = *valueRef;
                ++i;
            }
            return id;
        }
        default: return add(value, 9);  // real, date, unsigned integer, UID
        }
    }

    Result<std::uint64_t> flattenString(const std::string& text) {
        auto [it, inserted] = strings_.try_emplace(std::string_view(text), objects_.size());
        if (inserted) {
            if (!isValidUtf8(text)) return unencodable("string is not valid UTF-8");
            objects_.push_back(Object{nullptr, &text});
            estimate_ += text.size() * 2 + 9;
        }
        return it->second;
    }

    std::uint64_t add(const Value& value, std::size_t estimate) {
        objects_.push_back(Object{&value, nullptr});
        estimate_ += estimate;
        return objects_.size() - 1;
    }

    void putBigEndian(std::uint64_t value, std::size_t width) {
        for (std::size_t i = width; i-- > 0;) out_.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }

    void putDouble(std::uint8_t marker, double d) {
        std::uint64_t bits;
        std::memcpy(&bits, &d, 8);
        out_.push_back(marker);
        putBigEndian(bits, 8);
    }

    void putMarkerWithLength(std::uint8_t high, std::uint64_t length) {
        if (length < 15) {
            out_.push_back(static_cast<std::uint8_t>(high | length));
            return;
        }
        out_.push_back(static_cast<std::uint8_t>(high | 0x0F));
        putInteger(length);
    }

    void putInteger(std::uint64_t value) {
        const std::size_t width = bytesFor(value);
        out_.push_back(static_cast<std::uint8_t>(0x10 | (width == 1 ? 0 : width == 2 ? 1 : width == 4 ? 2 : 3)));
        putBigEndian(value, width);
    }

    void putRefs(std::size_t first, std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) putBigEndian(refs_[first + i], refSize_);
    }

    Status writeString(const std::string& text) {
        if (isAscii(text)) {
            putMarkerWithLength(0x50, text.size());
            out_.insert(out_.end(), text.begin(), text.end());
            return {};
        }
        scratch_.clear();
        std::size_t units = 0;
        if (!appendUtf8AsUtf16BigEndian(text, scratch_, units)) return unencodable("string is not valid UTF-8");
        putMarkerWithLength(0x60, units);
        out_.insert(out_.end(), scratch_.begin(), scratch_.end());
        return {};
    }

    Status write(const Object& object) {
        if (object.text) return writeString(*object.text);
        const Value& value = *object.value;
        switch (value.type()) {
        case Value::Type::Boolean: out_.push_back(*value.boolean() ? 0x09 : 0x08); break;
        case Value::Type::Integer: {
            const std::int64_t number = *value.int64();
            if (number < 0) {
                out_.push_back(0x13);
                putBigEndian(static_cast<std::uint64_t>(number), 8);
            } else {
                putInteger(static_cast<std::uint64_t>(number));
            }
            break;
        }
        case Value::Type::UnsignedInteger:
            // Beyond int64: the format's 16-byte (128-bit signed) integer.
            out_.push_back(0x14);
            putBigEndian(0, 8);
            putBigEndian(*value.get<std::uint64_t>(), 8);
            break;
        case Value::Type::Real: putDouble(0x23, *value.real()); break;
        case Value::Type::Date: putDouble(0x33, value.date()->secondsSinceReference); break;
        case Value::Type::Data: {
            const Data& data = *value.data();
            if (const DeferredData* deferred = deferredFor(data)) {
                putMarkerWithLength(0x40, deferred->size);
                defer(*deferred);
                break;
            }
            putMarkerWithLength(0x40, data.size());
            if (data.size() >= borrowFrom_) {
                borrow(data);
            } else {
                out_.insert(out_.end(), data.begin(), data.end());
            }
            break;
        }
        case Value::Type::Array:
            putMarkerWithLength(0xA0, value.array()->size());
            putRefs(object.firstRef, value.array()->size());
            break;
        case Value::Type::Dictionary:
            putMarkerWithLength(0xD0, value.dictionary()->size());
            putRefs(object.firstRef, 2 * value.dictionary()->size());
            break;
        case Value::Type::UID: {
            const std::uint64_t number = value.uid()->value;
            const std::size_t width = bytesFor(number);
            out_.push_back(static_cast<std::uint8_t>(0x80 | (width - 1)));
            putBigEndian(number, width);
            break;
        }
        case Value::Type::String: break;  // written through the string table above
        }
        return {};
    }

    std::vector<Object> objects_;
    std::vector<std::uint64_t> refs_;
    std::unordered_map<std::string_view, std::uint64_t> strings_;
    std::unordered_map<std::int64_t, std::uint64_t> integers_;
    std::int64_t trueRef_ = -1, falseRef_ = -1;
    std::size_t estimate_ = 0;
    std::size_t refSize_ = 1;
    // Where the next byte lands in the whole document.
    std::uint64_t position() const { return out_.size() + borrowedBytes_; }

    const DeferredData* deferredFor(const Data& data) const {
        if (deferred_.empty()) return nullptr;
        auto found = deferred_.find(&data);
        return found == deferred_.end() ? nullptr : found->second;
    }

    // A borrowed data value: the buffer so far ends a piece, the value is the next.
    void borrow(const Data& data) {
        pieces_.push_back(Piece{out_.size(), nullptr, 0, nullptr});
        pieces_.push_back(Piece{0, data.data(), data.size(), nullptr});
        borrowedBytes_ += data.size();
    }

    void defer(const DeferredData& data) {
        pieces_.push_back(Piece{out_.size(), nullptr, 0, nullptr});
        pieces_.push_back(Piece{0, nullptr, data.size, &data});
        borrowedBytes_ += data.size;
    }

    // Turns buffer offsets into spans now that the buffer no longer moves.
    EncodedPieces finish() {
        EncodedPieces result;
        result.buffer = std::move(out_);
        std::size_t bufferStart = 0;
        for (const Piece& piece : pieces_) {
            if (piece.deferred) {
                result.pieces.push_back({{}, piece.deferred});
            } else if (piece.external) {
                result.pieces.push_back({{piece.external, piece.size}});
            } else {
                result.pieces.push_back({{result.buffer.data() + bufferStart, piece.bufferEnd - bufferStart}});
                bufferStart = piece.bufferEnd;
            }
        }
        result.pieces.push_back({{result.buffer.data() + bufferStart, result.buffer.size() - bufferStart}});
        return result;
    }

    struct Piece {
        std::size_t bufferEnd;           // buffer pieces: where they end
        const std::uint8_t* external;    // borrowed pieces: the data
        std::size_t size;
        const DeferredData* deferred;    // deferred pieces: the data to make
    };

    std::size_t borrowFrom_;
    std::unordered_map<const Data*, const DeferredData*> deferred_;
    std::size_t borrowedBytes_ = 0;
    std::size_t borrowedEstimate_ = 0;
    std::vector<Piece> pieces_;
    std::vector<std::uint8_t> out_;
    std::vector<std::uint8_t> scratch_;
};

}  // namespace

Result<Data> encodeBinary(const Value& value) {
    auto encoded = BinaryWriter(std::numeric_limits<std::size_t>::max()).run(value);
    if (!encoded) return encoded.error();
    return std::move(encoded->buffer);
}

Status encodeBinary(const Value& value, Data& out) {
    BinaryWriter writer(std::numeric_limits<std::size_t>::max(), {}, std::move(out));
    auto encoded = writer.run(value);
    if (!encoded) {
        out = writer.takeBuffer();
        out.clear();
        return encoded.error();
    }
    out = std::move(encoded->buffer);
    return {};
}

Result<EncodedPieces> encodeBinaryPieces(const Value& value, std::span<const DeferredData> deferred) {
    return BinaryWriter(kBorrowedDataBytes, deferred).run(value);
}

std::size_t EncodedPieces::size() const {
    std::size_t total = 0;
    for (const Piece& piece : pieces) total += piece.deferred ? piece.deferred->size : piece.bytes.size();
    return total;
}

Status EncodedPieces::writeTo(const std::function<Status(std::span<const std::uint8_t>)>& sink) const {
    // One chunk reused for all deferred data: it stays in cache between
    // filling and writing, where fresh memory for all of it would not.
    std::vector<std::uint8_t> chunk;
    for (const Piece& piece : pieces) {
        if (!piece.deferred) {
            if (auto written = sink(piece.bytes); !written.ok()) return written;
            continue;
        }
        const DeferredData& data = *piece.deferred;
        if (chunk.empty()) chunk.resize(kDeferredChunkBytes);
        for (std::size_t offset = 0; offset < data.size; offset += chunk.size()) {
            const std::span<std::uint8_t> out(chunk.data(), std::min(chunk.size(), data.size - offset));
            data.fill(offset, out);
            if (auto written = sink(out); !written.ok()) return written;
        }
    }
    return {};
}

Result<Data> encode(const Value& value, Format format) {
    if (format == Format::Binary) return encodeBinary(value);
    auto xml = encodeXml(value);
    if (!xml) return xml.error();
    return Data(xml->begin(), xml->end());
}

}  // namespace netvane::plist
