#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "support/plist/plist.h"

namespace netvane::plist {
namespace {

Value binaryRoundTrip(const Value& value) {
    auto bytes = encodeBinary(value);
    EXPECT_TRUE(bytes.ok()) << bytes.error().message;
    auto decoded = decodeBinary(*bytes);
    EXPECT_TRUE(decoded.ok()) << decoded.error().message;
    return decoded.ok() ? *decoded : Value("decode failed");
}

Value xmlRoundTrip(const Value& value) {
    auto text = encodeXml(value);
    EXPECT_TRUE(text.ok()) << text.error().message;
    auto decoded = decode(std::span(reinterpret_cast<const std::uint8_t*>(text->data()), text->size()));
    EXPECT_TRUE(decoded.ok()) << decoded.error().message << "\n" << *text;
    return decoded.ok() ? *decoded : Value("decode failed");
}

// Integers at every width boundary of the binary format, both signs.
TEST(PlistRoundTrip, IntegersAtEveryWidth) {
    const std::int64_t signedValues[] = {0,          1,          255,         256,        65535,
                                         65536,      4294967295, 4294967296,  -1,         -255,
                                         -256,       -65536,     INT64_MIN,   INT64_MAX};
    for (std::int64_t i : signedValues) {
        EXPECT_EQ(binaryRoundTrip(Value(i)).int64(), i) << i;
        EXPECT_EQ(xmlRoundTrip(Value(i)).int64(), i) << i;
    }
    const std::uint64_t unsignedValues[] = {std::uint64_t{1} << 63, UINT64_MAX};
    for (std::uint64_t u : unsignedValues) {
        EXPECT_EQ(binaryRoundTrip(Value(u)).uint64(), u) << u;
        EXPECT_EQ(xmlRoundTrip(Value(u)).uint64(), u) << u;
        EXPECT_EQ(binaryRoundTrip(Value(u)).type(), Value::Type::UnsignedInteger);
    }
}

TEST(PlistRoundTrip, EncodedWidthsAreMinimal) {
    // Marker byte right after the 8-byte header for a lone integer.
    auto marker = [](Value v) { return (*encodeBinary(v))[8]; };
    EXPECT_EQ(marker(Value(255)), 0x10);
    EXPECT_EQ(marker(Value(256)), 0x11);
    EXPECT_EQ(marker(Value(65536)), 0x12);
    EXPECT_EQ(marker(Value(std::int64_t{1} << 32)), 0x13);
    EXPECT_EQ(marker(Value(-1)), 0x13);
    EXPECT_EQ(marker(Value(UINT64_MAX)), 0x14);
}

TEST(PlistRoundTrip, RealsAndDates) {
    for (double d : {0.0, -0.0, 1.5, -2.25e-300, 1e308, std::numeric_limits<double>::infinity()}) {
        EXPECT_EQ(binaryRoundTrip(Value(d)).real(), d);
        EXPECT_EQ(xmlRoundTrip(Value(d)).real(), d);
    }
    EXPECT_TRUE(std::isnan(*binaryRoundTrip(Value(std::nan(""))).real()));
    // Before 2001, before 1970, fractional: binary keeps every bit.
    for (double s : {-1e9, -3e9, 0.0, 0.125, 7e8 + 0.5}) {
        EXPECT_EQ(binaryRoundTrip(Value(Date{s})).date(), Date{s});
    }
    // XML keeps whole seconds, rounding down even before the reference date.
    EXPECT_EQ(xmlRoundTrip(Value(Date{-1e9})).date(), Date{-1e9});
    EXPECT_EQ(xmlRoundTrip(Value(Date{-0.5})).date(), Date{-1});
    EXPECT_EQ(xmlRoundTrip(Value(Date{12.75})).date(), Date{12});
}

TEST(PlistRoundTrip, StringsIncludingAstralPlane) {
    for (const char* s : {"", "plain ascii", "caf\xC3\xA9", "\xE6\x97\xA5\xE6\x9C\xAC", "\xF0\x9F\x98\x80 smile",
                          "<&>\"' \t\n", "\xEF\xBF\xBF"}) {
        EXPECT_EQ(binaryRoundTrip(Value(s)), Value(s)) << s;
        EXPECT_EQ(xmlRoundTrip(Value(s)), Value(s)) << s;
    }
}

TEST(PlistRoundTrip, DataEmptyAndLarge) {
    Data large(100000);
    for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<std::uint8_t>(i * 31);
    for (const Data& d : {Data{}, Data{0}, Data{1, 2, 3}, large}) {
        EXPECT_EQ(binaryRoundTrip(Value(d)), Value(d));
        EXPECT_EQ(xmlRoundTrip(Value(d)), Value(d));
    }
}

TEST(PlistRoundTrip, ContainersKeepOrderAndNesting) {
    Dictionary inner{{"z", 1}, {"a", Array{}}, {"m", Dictionary{}}};
    Dictionary root{{"zulu", inner}, {"alpha", Array{true, false, "x", Data{9}}}, {"empty", Dictionary{}}};
    const Value value(root);
    EXPECT_EQ(binaryRoundTrip(value), value);
    EXPECT_EQ(xmlRoundTrip(value), value);
    auto decoded = binaryRoundTrip(value);
    auto it = decoded.dictionary()->begin();
    EXPECT_EQ(it->first, "zulu");
    EXPECT_EQ((++it)->first, "alpha");
}

// Reference and offset widths change at 256 and 65,536 objects.
TEST(PlistRoundTrip, ManyObjectsWidenReferences) {
    for (std::size_t count : {300, 70000}) {
        Array array;
        for (std::size_t i = 0; i < count; ++i) array.emplace_back(std::string("s").append(std::to_string(i)));
        const Value value(array);
        auto bytes = *encodeBinary(value);
        const std::uint8_t refSize = bytes[bytes.size() - 32 + 7];
        EXPECT_EQ(refSize, count > 65535 ? 4 : 2);
        EXPECT_EQ(*decodeBinary(bytes), value);
    }
}

TEST(PlistRoundTrip, EqualStringsAreStoredOnce) {
    Array array;
    for (int i = 0; i < 1000; ++i) array.emplace_back(Dictionary{{"key", "same value"}});
    auto bytes = *encodeBinary(Value(array));
    // 1000 dictionaries, one key string, one value string, one array.
    std::uint64_t objects = 0;
    for (int i = 8; i < 16; ++i) objects = (objects << 8) | bytes[bytes.size() - 32 + i];
    EXPECT_EQ(objects, 1003u);
    EXPECT_EQ(*decodeBinary(bytes), Value(array));
}

TEST(PlistEncode, RefusesInvalidUtf8) {
    EXPECT_FALSE(encodeBinary(Value("\xC3")).ok());
    EXPECT_FALSE(encodeXml(Value("\xED\xA0\x80")).ok());  // a surrogate in UTF-8
    EXPECT_FALSE(encodeBinary(Value(Dictionary{{"\xFF", 1}})).ok());
    EXPECT_FALSE(encodeXml(Value("bell\x07")).ok());
    EXPECT_FALSE(encodeXml(Value(Date{std::nan("")})).ok());
}

// A reused buffer changes where the bytes are written, never the bytes: a
// smaller document after a larger one leaves no tail of it behind, a larger
// one grows the buffer, and a refused one leaves it empty, not half written.
TEST(PlistEncode, ReusedBufferHoldsExactlyEachDocument) {
    const Value large(Dictionary{{"blob", Data(300'000, 7)}, {"name", "large"}});
    const Value small(Array{1, "two", Data(3, 3)});
    const Value larger(Dictionary{{"blob", Data(900'000, 8)}, {"more", Array{Data(5'000, 9), 2.5}}});
    Data buffer;
    for (const Value* value : {&large, &small, &larger, &small}) {
        ASSERT_TRUE(encodeBinary(*value, buffer).ok());
        EXPECT_EQ(buffer, *encodeBinary(*value));
        EXPECT_EQ(*decodeBinary(buffer), *value);
    }
    EXPECT_GE(buffer.capacity(), 900'000u);  // kept from the larger document
    EXPECT_FALSE(encodeBinary(Value(Array{Data(1'000, 1), "\xC3"}), buffer).ok());
    EXPECT_TRUE(buffer.empty());
    ASSERT_TRUE(encodeBinary(small, buffer).ok());
    EXPECT_EQ(buffer, *encodeBinary(small));
}

}  // namespace
}  // namespace netvane::plist

namespace netvane::plist {
namespace {

Data written(const EncodedPieces& pieces) {
    Data joined;
    const Status status = pieces.writeTo([&](std::span<const std::uint8_t> bytes) {
        joined.insert(joined.end(), bytes.begin(), bytes.end());
        return Status{};
    });
    EXPECT_TRUE(status.ok());
    return joined;
}

// Borrowing big data values changes where bytes come from, never the bytes.
TEST(PlistEncode, PiecesConcatenateToTheWholeDocument) {
    Dictionary root{{"small", Data(100, 1)}, {"big", Data(kBorrowedDataBytes, 2)},
                    {"list", Array{Data(kBorrowedDataBytes * 3, 3), "text", Data(kBorrowedDataBytes - 1, 4)}}};
    const Value value(root);
    auto pieces = encodeBinaryPieces(value);
    ASSERT_TRUE(pieces.ok());
    EXPECT_GE(pieces->pieces.size(), 5u);
    const Data joined = written(*pieces);
    EXPECT_EQ(joined.size(), pieces->size());
    EXPECT_EQ(joined, *encodeBinary(value));
    EXPECT_EQ(*decodeBinary(joined), value);
}

// Deferred data written in chunks, around, between and beside ordinary data
// (empty, borrowed, equal to another), reads back as if it had been there.
TEST(PlistEncode, DeferredDataIsMadeInChunksWhereItsPlaceholderStands) {
    const auto pattern = [](std::uint8_t seed, std::size_t size) {
        Data data(size);
        for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<std::uint8_t>(seed + i * 7 + i / 251);
        return data;
    };
    const std::size_t sizes[] = {kDeferredChunkBytes * 2 + 64, 0, 10, kDeferredChunkBytes};
    Array list;
    for (std::size_t i = 0; i < std::size(sizes); ++i) list.push_back(Data{});  // placeholders
    list.push_back(Data{});  // an empty value that is not deferred
    list.push_back(Data(kBorrowedDataBytes, 9));
    Value document(Dictionary{{"list", std::move(list)}});

    std::vector<DeferredData> deferred;
    std::vector<std::size_t> fillSizes;
    const Array& placed = *document.find("list")->array();
    for (std::size_t i = 0; i < std::size(sizes); ++i) {
        deferred.push_back({placed[i].data(), sizes[i], [&, i](std::size_t offset, std::span<std::uint8_t> out) {
                                const Data whole = pattern(static_cast<std::uint8_t>(i), sizes[i]);
                                std::copy_n(whole.begin() + static_cast<std::ptrdiff_t>(offset), out.size(), out.begin());
                                fillSizes.push_back(out.size());
                            }});
    }
    auto pieces = encodeBinaryPieces(document, deferred);
    ASSERT_TRUE(pieces.ok());
    const Data joined = written(*pieces);
    EXPECT_EQ(joined.size(), pieces->size());

    Array expectedList;
    for (std::size_t i = 0; i < std::size(sizes); ++i) expectedList.push_back(pattern(static_cast<std::uint8_t>(i), sizes[i]));
    expectedList.push_back(Data{});
    expectedList.push_back(Data(kBorrowedDataBytes, 9));
    const Value expected(Dictionary{{"list", std::move(expectedList)}});
    EXPECT_EQ(joined, *encodeBinary(expected));
    EXPECT_EQ(fillSizes, (std::vector<std::size_t>{kDeferredChunkBytes, kDeferredChunkBytes, 64, 10, kDeferredChunkBytes}));

    // A sink that fails stops the writing at once.
    int calls = 0;
    const Status failed = pieces->writeTo([&](std::span<const std::uint8_t>) {
        ++calls;
        return Status{Error{"test", 1, "disk full"}};
    });
    EXPECT_FALSE(failed.ok());
    EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace netvane::plist
