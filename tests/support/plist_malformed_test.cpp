#include <gtest/gtest.h>

#include <cstring>

#include "support/plist/plist.h"

namespace netvane::plist {
namespace {

// A hand-built binary document: header, objects, offset table, trailer.
Data document(const Data& objects, const std::vector<std::uint64_t>& offsets, std::uint8_t refSize,
              std::uint64_t top = 0, std::uint8_t offsetSize = 1) {
    Data out(8 + objects.size());
    std::memcpy(out.data(), "bplist00", 8);
    std::copy(objects.begin(), objects.end(), out.begin() + 8);
    const std::uint64_t table = out.size();
    for (auto o : offsets) {
        for (int i = offsetSize - 1; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(o >> (8 * i)));
    }
    out.insert(out.end(), 6, 0);
    out.push_back(offsetSize);
    out.push_back(refSize);
    auto put64 = [&](std::uint64_t v) {
        for (int i = 7; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    };
    put64(offsets.size());
    put64(top);
    put64(table);
    return out;
}

TEST(PlistMalformed, HandBuiltDocumentDecodes) {
    // Sanity check of the builder: an array holding the string "ab".
    auto ok = decodeBinary(document({0xA1, 1, 0x52, 'a', 'b'}, {8, 10}, 1));
    ASSERT_TRUE(ok.ok()) << ok.error().message;
    EXPECT_EQ(*ok, Value(Array{"ab"}));
}

TEST(PlistMalformed, StructuralDamageIsAnError) {
    const Data good = *encodeBinary(Value(Dictionary{{"k", Array{1, "two", Data{3}}}}));
    // Every truncation of a valid document fails cleanly.
    for (std::size_t n = 0; n < good.size(); ++n) {
        EXPECT_FALSE(decodeBinary(std::span(good.data(), n)).ok()) << n;
    }
    struct Case {
        const char* what;
        Data bytes;
    } cases[] = {
        {"self-referencing array", document({0xA1, 0}, {8}, 1)},
        {"two arrays referencing each other", document({0xA1, 1, 0xA1, 0}, {8, 10}, 1)},
        {"reference past the object count", document({0xA1, 5}, {8}, 1)},
        {"offset into the offset table", document({0x08}, {9}, 1)},
        {"offset into the header", document({0x08}, {3}, 1)},
        {"top object out of range", document({0x08}, {8}, 1, 1)},
        {"zero reference size", document({0x08}, {8}, 0)},
        {"string longer than the input", document({0x5F, 0x10, 200, 'a'}, {8}, 1)},
        {"array count larger than the input", document({0xAF, 0x13, 0x0F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, {8}, 1)},
        {"data length with a bad marker", document({0x4F, 0x20, 1}, {8}, 1)},
        {"dictionary key that is not a string", document({0xD1, 1, 1, 0x10, 5}, {8, 11}, 1)},
        {"unpaired UTF-16 surrogate", document({0x61, 0xD8, 0x00}, {8}, 1)},
        {"non-ASCII byte in ASCII string", document({0x51, 0xE9}, {8}, 1)},
        {"unknown marker", document({0x70}, {8}, 1)},
        {"null marker", document({0x00}, {8}, 1)},
        {"128-bit integer beyond 64 bits", document({0x14, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}, {8}, 1)},
    };
    for (const Case& c : cases) {
        auto r = decodeBinary(c.bytes);
        EXPECT_FALSE(r.ok()) << c.what;
    }

    // Object counts the offset table cannot hold: one more than it has, and 2^64-1.
    Data counted = document({0x08}, {8}, 1);
    counted[counted.size() - 17] = 2;
    EXPECT_FALSE(decodeBinary(counted).ok());
    std::memset(&counted[counted.size() - 24], 0xFF, 8);
    EXPECT_FALSE(decodeBinary(counted).ok());
}

// A valid trailer and offset table, and one object whose contents run past
// the object area into the offset table: the bounds check of that very kind
// of object must refuse it (truncating a document never gets this far: it
// moves the trailer, which the start-up checks refuse).
TEST(PlistMalformed, ObjectsRunningPastTheObjectAreaAreRefusedByTheirOwnCheck) {
    const struct {
        const char* what;
        Data objects;
        const char* problem;
    } cases[] = {
        {"data", {0x45, 'a', 'b'}, "data runs past the end"},
        {"data with a long length", {0x4F, 0x10, 0x05, 'a'}, "data runs past the end"},
        {"ASCII string", {0x55, 'a', 'b'}, "string runs past the end"},
        {"UTF-16 string", {0x62, 0x00, 'a', 0x00}, "string runs past the end"},
        {"UTF-16 string, half a unit", {0x61, 0x00}, "string runs past the end"},
        {"array", {0xA3, 0, 0}, "array runs past the end"},
        {"dictionary", {0xD2, 0, 0, 0}, "dictionary runs past the end"},
        {"1-byte integer", {0x10}, "truncated integer"},
        {"2-byte integer", {0x11, 1}, "truncated integer"},
        {"4-byte integer", {0x12, 1, 2, 3}, "truncated integer"},
        {"8-byte integer", {0x13, 1, 2, 3, 4, 5, 6, 7}, "truncated integer"},
        {"16-byte integer", {0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, "truncated integer"},
        {"length marker at the end", {0x4F}, "truncated length"},
        {"1-byte length", {0x4F, 0x10}, "truncated length"},
        {"2-byte length", {0x4F, 0x11, 0}, "truncated length"},
        {"4-byte length", {0x4F, 0x12, 0, 0, 0}, "truncated length"},
        {"8-byte length", {0x4F, 0x13, 0, 0, 0, 0, 0, 0, 0}, "truncated length"},
        {"4-byte real", {0x22, 0, 0, 0}, "truncated real"},
        {"8-byte real", {0x23, 0, 0, 0, 0, 0, 0, 0}, "truncated real"},
        {"date", {0x33, 0, 0, 0, 0, 0, 0, 0}, "truncated date"},
        {"UID", {0x81, 1}, "truncated UID"},
    };
    for (const auto& c : cases) {
        auto decoded = decodeBinary(document(c.objects, {8}, 1), {.uids = UIDs::read});
        ASSERT_FALSE(decoded.ok()) << c.what;
        EXPECT_EQ(decoded.error().message, std::string("malformed binary property list: ") + c.problem) << c.what;
    }

    // A dictionary key is read by the string check too: {key: true} with the key last.
    auto key = decodeBinary(document({0xD1, 2, 1, 0x09, 0x53, 'k', 'e'}, {8, 11, 12}, 1));
    ASSERT_FALSE(key.ok());
    EXPECT_EQ(key.error().message, "malformed binary property list: string runs past the end");
    // The same kinds of object, whole, decode: the checks refuse only what
    // really runs past.
    EXPECT_TRUE(decodeBinary(document({0x44, 'a', 'b', 'c', 'd'}, {8}, 1)).ok());
    EXPECT_TRUE(decodeBinary(document({0x13, 1, 2, 3, 4, 5, 6, 7, 8}, {8}, 1)).ok());
    EXPECT_TRUE(decodeBinary(document({0x62, 0x00, 'a', 0x00, 'b'}, {8}, 1)).ok());
}

// Keyed archives reference their objects by UID (marker 0x8, one to eight
// bytes); documents of ours never hold one.
TEST(PlistUID, ReadOnlyWhenAskedAtEveryWidth) {
    const Data archive = document({0xA4, 1, 2, 3, 4,                  // [uid, uid, uid, uid]
                                   0x80, 0x05,                          // 1 byte
                                   0x81, 0x01, 0x00,                    // 2 bytes
                                   0x83, 0x00, 0x01, 0x00, 0x00,        // 4 bytes
                                   0x87, 0xFF, 0, 0, 0, 0, 0, 0, 0x01}, // 8 bytes
                                  {8, 13, 15, 18, 23}, 1);
    EXPECT_FALSE(decodeBinary(archive).ok()) << "UIDs are refused unless asked for";
    EXPECT_FALSE(decode(archive).ok());
    auto read = decodeBinary(archive, {.uids = UIDs::read});
    ASSERT_TRUE(read.ok()) << read.error().message;
    const Value expected = Array{UID{5}, UID{256}, UID{65536}, UID{0xFF00000000000001}};
    EXPECT_EQ(*read, expected);
    EXPECT_NE(Value(UID{5}), Value(5)) << "a UID is not an integer";

    // Written back at the same widths, and read back equal.
    EXPECT_EQ(*encodeBinary(expected), archive);
    EXPECT_EQ(decode(*encodeBinary(expected), UIDs::read).value(), expected);

    const struct {
        const char* what;
        Data bytes;
    } refused[] = {
        {"nine bytes", document({0x88, 0, 0, 0, 0, 0, 0, 0, 0, 1}, {8}, 1)},
        {"sixteen bytes", document({0x8F, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, {8}, 1)},
        {"cut short", document({0x83, 0, 1}, {8}, 1)},
        {"as a dictionary key", document({0xD1, 1, 2, 0x80, 1, 0x09}, {8, 11, 13}, 1)},
    };
    for (const auto& c : refused) EXPECT_FALSE(decodeBinary(c.bytes, {.uids = UIDs::read}).ok()) << c.what;
}

// XML carries a UID as the one-entry dictionary {"CF$UID": n}, and reads
// that form back as a UID where UIDs are asked for.
TEST(PlistUID, XmlFormIsTheCFUIDDictionary) {
    const Value value = Dictionary{{"$top", Dictionary{{"root", UID{1}}}}};
    auto xml = encodeXml(value);
    ASSERT_TRUE(xml.ok());
    EXPECT_NE(xml->find("<dict>\n\t\t\t<key>CF$UID</key>\n\t\t\t<integer>1</integer>\n\t\t</dict>"),
              std::string::npos)
        << *xml;
    const auto bytes = std::span(reinterpret_cast<const std::uint8_t*>(xml->data()), xml->size());
    EXPECT_EQ(decodeXml(bytes, UIDs::read).value(), value);
    EXPECT_EQ(decodeXml(bytes).value(), (Dictionary{{"$top", Dictionary{{"root", Dictionary{{"CF$UID", 1}}}}}}))
        << "without UIDs, the dictionary stays a dictionary";
    // Only exactly that shape is a UID.
    for (const Value& other : {Value(Dictionary{{"CF$UID", -1}}), Value(Dictionary{{"CF$UID", "1"}}),
                               Value(Dictionary{{"CF$UID", 1}, {"x", 2}})}) {
        auto text = *encodeXml(other);
        EXPECT_EQ(decodeXml(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()), UIDs::read)
                      .value(),
                  other);
    }
}

TEST(PlistMalformed, ExcessiveDepthIsRefusedBothWays) {
    Value deep = Array{};
    for (std::size_t i = 0; i < kMaxDepth + 5; ++i) deep = Array{std::move(deep)};
    EXPECT_FALSE(encodeBinary(deep).ok());
    EXPECT_FALSE(encodeXml(deep).ok());

    // A chain of arrays each holding the next, built by hand.
    Data objects;
    std::vector<std::uint64_t> offsets;
    const std::size_t n = kMaxDepth + 10;
    for (std::size_t i = 0; i < n; ++i) {
        offsets.push_back(8 + objects.size());
        objects.push_back(i + 1 < n ? 0xA1 : 0xA0);
        if (i + 1 < n) {
            objects.push_back(static_cast<std::uint8_t>((i + 1) >> 8));
            objects.push_back(static_cast<std::uint8_t>(i + 1));
        }
    }
    EXPECT_FALSE(decodeBinary(document(objects, offsets, 2, 0, 2)).ok());

    std::string xml;
    for (std::size_t i = 0; i < n; ++i) xml += "<array>";
    for (std::size_t i = 0; i < n; ++i) xml += "</array>";
    EXPECT_FALSE(decodeXml(std::span(reinterpret_cast<const std::uint8_t*>(xml.data()), xml.size())).ok());
}

// Each array references the next one twice: 2^40 leaves from a few hundred bytes.
TEST(PlistMalformed, SharedObjectExpansionIsBounded) {
    Data objects;
    std::vector<std::uint64_t> offsets;
    const std::size_t n = 40;
    for (std::size_t i = 0; i < n; ++i) {
        offsets.push_back(8 + objects.size());
        if (i + 1 < n) {
            objects.insert(objects.end(), {0xA2, static_cast<std::uint8_t>(i + 1), static_cast<std::uint8_t>(i + 1)});
        } else {
            objects.push_back(0x09);
        }
    }
    auto result = decodeBinary(document(objects, offsets, 1));
    ASSERT_FALSE(result.ok());
    EXPECT_NE(result.error().message.find("budget"), std::string::npos);
}

TEST(PlistMalformed, XmlDamageIsAnError) {
    const char* cases[] = {
        "",
        "<plist>",
        "<plist version=\"1.0\"><string>a</string>",
        "<plist><string>a</plist>",
        "<plist><integer>12x</integer></plist>",
        "<plist><integer>18446744073709551616</integer></plist>",
        "<plist><integer>-9223372036854775809</integer></plist>",
        "<plist><real>one</real></plist>",
        "<plist><date>2001-13-01T00:00:00Z</date></plist>",
        "<plist><date>yesterday</date></plist>",
        "<plist><data>!!!!</data></plist>",
        "<plist><data>QUJD=</data></plist>",
        "<plist><dict><string>no key</string></dict></plist>",
        "<plist><dict><key>k</key></dict></plist>",
        "<plist><dict><key>k</key><key>j</key><true/></dict></plist>",
        "<plist><string>&bogus;</string></plist>",
        "<plist><string>&#0;</string></plist>",
        "<plist><string>&#xD800;</string></plist>",
        "<plist><string>\xFF</string></plist>",
        "<plist><unknown/></plist>",
        "<plist><true/><true/></plist>",
        "<plist><array><true/></dict></plist>",
        "<!-- unterminated",
    };
    for (const char* c : cases) {
        EXPECT_FALSE(decodeXml(std::span(reinterpret_cast<const std::uint8_t*>(c), std::strlen(c))).ok()) << c;
    }
}

}  // namespace
}  // namespace netvane::plist
