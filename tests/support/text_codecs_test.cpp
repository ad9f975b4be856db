#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>

#include "support/base64.h"
#include "support/crypto.h"
#include "support/date.h"
#include "support/json.h"
#include "support/result.h"
#include "support/unicode.h"
#include "support/uuid.h"

namespace netvane {
namespace {

std::vector<std::uint8_t> bytesOf(std::string_view s) { return {s.begin(), s.end()}; }

TEST(Base64, KnownVectorsBothWays) {
    const std::pair<const char*, const char*> vectors[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"}, {"\xFF\xFE\xFD", "//79"},
    };
    for (auto [plain, encoded] : vectors) {
        EXPECT_EQ(base64Encode(bytesOf(plain)), encoded);
        EXPECT_EQ(base64Decode(encoded), bytesOf(plain));
    }
    EXPECT_EQ(base64Decode(" Zm9v\nYmFy\t"), bytesOf("foobar"));
    for (const char* bad : {"Zg=", "Z", "Zm9v!", "Zg==Zg==", "Zm=v", "Z==="}) EXPECT_FALSE(base64Decode(bad)) << bad;
}

TEST(Date, FormatsAndParsesAcrossEpochs) {
    EXPECT_EQ(formatISO8601(Date{0}), "2001-01-01T00:00:00Z");
    EXPECT_EQ(formatISO8601(Date{-1}), "2000-12-31T23:59:59Z");
    EXPECT_EQ(formatISO8601(Date::fromUnix(0)), "1970-01-01T00:00:00Z");
    EXPECT_EQ(formatISO8601Fraction(Date{-0.25}), "2000-12-31T23:59:59.750Z");
    EXPECT_EQ(formatISO8601(Date{4102444800.0 - kUnixToReferenceSeconds + 86400 * 59}), "2100-03-01T00:00:00Z");
    EXPECT_EQ(parseISO8601("1970-01-01T00:00:00Z"), Date::fromUnix(0));
    EXPECT_EQ(parseISO8601("2000-02-29T12:00:00.5Z"), Date{-86400 * 306 - 43200 + 0.5});
    EXPECT_EQ(parseISO8601("2024Z"), parseISO8601("2024-01-01T00:00:00Z"));
    // Every time that parses prints back as it was, to the last second of 9999.
    for (const char* text : {"9999-12-31T23:59:59Z", "0000-01-01T00:00:00Z", "9923-01-01T00:00:00Z"}) {
        EXPECT_EQ(formatISO8601(*parseISO8601(text)), text);
    }
    EXPECT_EQ(formatISO8601Fraction(Date{1e300}), "9999-12-31T23:59:59.999Z");
    for (const char* bad : {"", "2001-01-01", "2001-01-01T00:00:00", "2001-00-01Z", "2001-01-01T24:00:00Z", "01-01-01Z"}) {
        EXPECT_FALSE(parseISO8601(bad)) << bad;
    }
}

TEST(Crypto, Sha256KnownVector) {
    const Sha256Digest d = sha256(bytesOf("abc"));
    EXPECT_EQ(base64Encode(d), "ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa0=");
}

TEST(Crypto, RandomBytesAndUuidsDiffer) {
    std::array<std::uint8_t, 32> a{}, b{};
    ASSERT_TRUE(secureRandomBytes(a).ok());
    ASSERT_TRUE(secureRandomBytes(b).ok());
    EXPECT_NE(a, b);
    std::set<std::string> seen;
    for (int i = 0; i < 100; ++i) {
        auto uuid = makeUUIDString();
        ASSERT_TRUE(uuid.ok());
        ASSERT_EQ(uuid->size(), 36u);
        EXPECT_EQ((*uuid)[14], '4');
        EXPECT_NE(std::string("89AB").find((*uuid)[19]), std::string::npos);
        EXPECT_EQ(uuid->find_first_of("abcdef"), std::string::npos);
        seen.insert(*uuid);
    }
    EXPECT_EQ(seen.size(), 100u);
}

TEST(Unicode, RepairReplacesInvalidBytesAndKeepsTheRest) {
    using namespace std::string_literals;
    EXPECT_EQ(repairUtf8("caf\xC3\xA9"), "caf\xC3\xA9");
    EXPECT_EQ(repairUtf8("a\xFF" "b"), "a\xEF\xBF\xBD" "b");
    EXPECT_EQ(repairUtf8("a\0b"s), "a\0b"s);
    const char buffer[] = {'x', 'y', '\0', 'z'};
    EXPECT_EQ(decodeCString(buffer), "xy");
}

TEST(Unicode, TerminalTextEscapesEveryControlAndKeepsPrintableText) {
    using namespace std::string_literals;
    EXPECT_EQ(terminalText("caf\xC3\xA9 \xE2\x82\xAC"), "caf\xC3\xA9 \xE2\x82\xAC");
    EXPECT_EQ(terminalText("a\x1b[2Jb"), "a\\x1b[2Jb");
    EXPECT_EQ(terminalText("line\r\nforged\t"), "line\\r\\nforged\\t");
    EXPECT_EQ(terminalText("\0\x7f"s), "\\x00\\x7f");
    // C1 controls (a single-byte CSI among them) are escaped; U+00A0 onwards is text.
    EXPECT_EQ(terminalText("\xC2\x9B" "31m\xC2\x85\xC2\xA0"), "\\u009b31m\\u0085\xC2\xA0");
    // Ill-formed bytes are repaired first, so no stray byte can start a sequence.
    EXPECT_EQ(terminalText("x\x9By\xFF"), "x\xEF\xBF\xBDy\xEF\xBF\xBD");
}

TEST(PosixError, CarriesTheSystemsTextForEveryErrno) {
    const Error error = posixError(ENOENT, "open /nowhere");
    EXPECT_EQ(error.domain, kPosixErrorDomain);
    EXPECT_EQ(error.code, ENOENT);
    EXPECT_EQ(error.message, std::string("open /nowhere: ") + std::strerror(ENOENT));
    EXPECT_FALSE(posixError(99999).message.empty());
}

TEST(Json, EscapesAndConvertsEveryType) {
    plist::Value value(plist::Dictionary{
        {"text", "quote\" back\\ nl\n ctl\x01 \xC3\xA9"},
        {"big", plist::Value(UINT64_MAX)},
        {"neg", -3},
        {"real", 0.5},
        {"inf", std::numeric_limits<double>::infinity()},
        {"data", plist::Data{1, 2, 3}},
        {"date", Date{0.5}},
        {"list", plist::Array{true, plist::Array{}, plist::Dictionary{}}},
        {"uid", plist::UID{7}},
    });
    EXPECT_EQ(toJSON(value, false),
              "{\"text\":\"quote\\\" back\\\\ nl\\n ctl\\u0001 \xC3\xA9\",\"big\":18446744073709551615,\"neg\":-3,"
              "\"real\":0.5,\"inf\":null,\"data\":\"AQID\",\"date\":\"2001-01-01T00:00:00.500Z\","
              "\"list\":[true,[],{}],\"uid\":{\"CF$UID\":7}}");
}

// JSON text is UTF-8: bytes that are not come out as U+FFFD, keys too, and
// the controls a terminal would act on (DEL, C1) are escaped, while other
// text passes as it is.
TEST(Json, OutputIsValidUtf8WithEveryControlEscaped) {
    const plist::Value value(plist::Dictionary{
        {"eth\xFF" "0", "cut \xE2\x82 short"},
        {"c1", "csi\xC2\x9B" "2J del\x7F nbsp\xC2\xA0 \xC3\xA9"},
    });
    const std::string text = toJSON(value, false);
    EXPECT_TRUE(isValidUtf8(text)) << text;
    EXPECT_EQ(text,
              "{\"eth\xEF\xBF\xBD" "0\":\"cut \xEF\xBF\xBD short\","
              "\"c1\":\"csi\\u009b2J del\\u007f nbsp\xC2\xA0 \xC3\xA9\"}");
}

// Pretty output indents two spaces a level, however deep.
TEST(Json, PrettyOutputIndentsEveryLevel) {
    plist::Value value = plist::Array{};
    for (int i = 0; i < 20; ++i) value = plist::Array{std::move(value)};
    const std::string text = toJSON(value);
    std::string expected;
    for (int depth = 0; depth <= 20; ++depth) expected += std::string(depth * 2, ' ') + (depth < 20 ? "[\n" : "[]\n");
    for (int depth = 19; depth >= 0; --depth) expected += std::string(depth * 2, ' ') + "]\n";
    EXPECT_EQ(text, expected);
}

// The same document written call by call, pretty and compact, and flushed
// in pieces on the way, against the text of its value.
TEST(Json, StreamedDocumentMatchesItsValue) {
    const plist::Value value(plist::Dictionary{
        {"empty", plist::Dictionary{}},
        {"list", plist::Array{1, plist::Array{}, plist::Dictionary{{"a", "x\ty"}}, false}},
        {"nested", plist::Dictionary{{"deep", plist::Dictionary{{"n", 2.25}}}, {"after", -1}}},
    });
    const auto stream = [](JsonWriter& json, std::FILE* pieces) {
        json.beginObject();
        json.key("empty");
        json.beginObject();
        json.endObject();
        json.key("list");
        json.beginArray();
        json.number(std::int64_t{1});
        json.beginArray();
        json.endArray();
        if (pieces != nullptr) {
            EXPECT_TRUE(json.flushTo(pieces));
        }
        json.beginObject();
        json.key("a");
        json.string("x\ty");
        json.endObject();
        json.boolean(false);
        json.endArray();
        json.key("nested");
        json.beginObject();
        json.key("deep");
        json.beginObject();
        json.key("n");
        json.number(2.25);
        json.endObject();
        if (pieces != nullptr) {
            EXPECT_TRUE(json.flushTo(pieces));
        }
        json.key("after");
        json.number(std::int64_t{-1});
        json.endObject();
        json.endObject();
    };
    for (bool pretty : {true, false}) {
        JsonWriter whole(pretty);
        stream(whole, nullptr);
        EXPECT_EQ(whole.take(), toJSON(value, pretty));

        std::FILE* file = std::tmpfile();
        ASSERT_NE(file, nullptr);
        JsonWriter pieces(pretty);
        stream(pieces, file);
        const std::string rest = pieces.take();
        std::string text(static_cast<std::size_t>(std::ftell(file)), '\0');
        std::rewind(file);
        ASSERT_EQ(std::fread(text.data(), 1, text.size(), file), text.size());
        std::fclose(file);
        EXPECT_EQ(text + rest, toJSON(value, pretty));
    }
}

}  // namespace
}  // namespace netvane

#include <unistd.h>

#include <fstream>
#include <sstream>

#include "support/process.h"

namespace netvane {
namespace {

// Field 22 of /proc/self/stat, read independently of the code under test.
TEST(Process, StartTimeIsField22OfStat) {
    std::ifstream stat("/proc/self/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    for (int i = 3; i <= 22; ++i) fields >> field;
    EXPECT_EQ(processStartTime(getpid()), std::stoull(field));
    EXPECT_NE(processStartTime(getpid()), 0u);
    EXPECT_EQ(processStartTime(-5), 0u);
}

}  // namespace
}  // namespace netvane
