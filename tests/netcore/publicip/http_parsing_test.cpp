#include <gtest/gtest.h>

#include "netcore/publicip/http_exchange.h"

namespace netvane::PublicIPService {
namespace {

std::span<const std::uint8_t> bytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

std::string text(const Bytes& data) { return {data.begin(), data.end()}; }

// The body, or the error text prefixed with "error: ".
std::string parsed(std::string_view response) {
    auto body = parseHTTP(bytes(response));
    return body ? text(*body) : "error: " + body.error().message;
}

std::string dechunked(std::string_view body) {
    auto joined = dechunk(bytes(body));
    return joined ? text(*joined) : "error: " + joined.error().message;
}

const std::string kMalformed = "error: The server's response couldn't be read";

TEST(LookupURL, HttpsWithPortPathAndQuery) {
    const auto url = parseLookupURL("https://echo.example:8443/x?y=1");
    ASSERT_TRUE(url.ok());
    EXPECT_EQ(*url, (LookupURL{true, "echo.example", 8443, "/x?y=1"}));
    EXPECT_EQ(requestText(*url),
              "GET /x?y=1 HTTP/1.1\r\nHost: echo.example\r\nUser-Agent: Netvane\r\nAccept: */*\r\n"
              "Connection: close\r\n\r\n");
}

TEST(LookupURL, DefaultsPortsAndPath) {
    EXPECT_EQ(*parseLookupURL("http://echo.example"), (LookupURL{false, "echo.example", 80, "/"}));
    EXPECT_EQ(*parseLookupURL("https://echo.example?q"), (LookupURL{true, "echo.example", 443, "/?q"}));
    EXPECT_EQ(*parseLookupURL("http://user:pw@echo.example:/a%20b#frag"),
              (LookupURL{false, "echo.example", 80, "/a%20b"}));
}

TEST(LookupURL, IPv6LiteralLosesBracketsButHostHeaderKeepsThem) {
    const auto url = parseLookupURL("http://[::1]:8080/ip");
    ASSERT_TRUE(url.ok());
    EXPECT_EQ(*url, (LookupURL{false, "::1", 8080, "/ip"}));
    EXPECT_NE(requestText(*url).find("\r\nHost: [::1]\r\n"), std::string::npos);
}

TEST(LookupURL, RefusesWhatCannotBeLookedUp) {
    for (const char* bad : {"", "echo.example/ip", "ftp://echo.example/ip", "HTTPS://echo.example/ip",
                            "https:echo.example", "https:///ip", "https://:443/ip", "https://echo.example:99999/",
                            "https://echo.example:8o/", "https://[fe80::1%25eth0]/", "https://[::1/",
                            "https://echo example/", "https://echo.example/a b", "https://echo.example/%zz",
                            "http://[1.2.3.4]/"}) {
        const auto url = parseLookupURL(bad);
        ASSERT_FALSE(url.ok()) << bad;
        EXPECT_EQ(url.error().message, "The lookup URL isn't valid") << bad;
    }
}

TEST(ParseHTTP, ReturnsBodyAfterHeadersWhateverTheContentLength) {
    EXPECT_EQ(parsed("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\n192.0.2.7\n"), "192.0.2.7\n");
    EXPECT_EQ(parsed("HTTP/1.1 204 No Content\r\n\r\n"), "");
    EXPECT_EQ(parsed("HTTP/1.0   299  \r\n\r\nx"), "x");
    EXPECT_EQ(parsed("HTTP/1.1 +200 OK\r\n\r\nx"), "x");
}

TEST(ParseHTTP, StatusOutsideSuccessIsHTTPError) {
    EXPECT_EQ(parsed("HTTP/1.1 301 Moved Permanently\r\nLocation: /\r\n\r\n"), "error: The server answered HTTP 301");
    EXPECT_EQ(parsed("HTTP/1.1 199 Early\r\n\r\n"), "error: The server answered HTTP 199");
    EXPECT_EQ(parsed("HTTP/1.1 300 Multiple\r\n\r\n"), "error: The server answered HTTP 300");
    EXPECT_EQ(parsed("HTTP/1.1 -200 Odd\r\n\r\n"), "error: The server answered HTTP -200");
}

TEST(ParseHTTP, UnreadableStatusLineIsHTTPZero) {
    for (const char* response : {"HTTP/1.1\r\n\r\n", "HTTP/1.1 OK 200\r\n\r\n", "HTTP/1.1 2OO OK\r\n\r\n",
                                 "\r\n\r\n", "HTTP/1.1 99999999999999999999 OK\r\n\r\n", "HTTP/1.1\t200 OK\r\n\r\n"}) {
        EXPECT_EQ(parsed(response), "error: The server answered HTTP 0") << response;
    }
}

TEST(ParseHTTP, NoEndOfHeadersIsMalformed) {
    EXPECT_EQ(parsed("HTTP/1.1 200 OK\r\nContent-Length: 3\r\n"), kMalformed);
    EXPECT_EQ(parsed("HTTP/1.1 200 OK\n\n1.2.3.4"), kMalformed);
    EXPECT_EQ(parsed(""), kMalformed);
}

TEST(ParseHTTP, ChunkedOnlyThroughTransferEncodingInAnyCase) {
    const std::string chunks = "4\r\nabcd\r\n0\r\n\r\n";
    EXPECT_EQ(parsed("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + chunks), "abcd");
    EXPECT_EQ(parsed("HTTP/1.1 200 OK\r\nTRANSFER-ENCODING: gzip, Chunked\r\n\r\n" + chunks), "abcd");
    EXPECT_EQ(parsed("HTTP/1.1 200 OK\r\nX-Transfer-Encoding: chunked\r\n\r\n" + chunks), chunks);
    EXPECT_EQ(parsed("HTTP/1.1 200 OK\r\nX-Note: chunked\r\n\r\n" + chunks), chunks);
    EXPECT_EQ(parsed("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n"), kMalformed);
}

TEST(Dechunk, JoinsChunksAndIgnoresExtensionsAndTrailers) {
    EXPECT_EQ(dechunked("4\r\nabcd\r\n0\r\n\r\n"), "abcd");
    EXPECT_EQ(dechunked("4;name=value\r\nabcd\r\n0\r\n\r\n"), "abcd");
    EXPECT_EQ(dechunked("2\r\nab\r\nA\r\n0123456789\r\n0\r\nTrailer: x\r\n\r\n"), "ab0123456789");
    EXPECT_EQ(dechunked(";;3\r\nxyz\r\n0\r\n\r\n"), "xyz");
    EXPECT_EQ(dechunked("+3\r\nxyz\r\n0\r\n\r\n"), "xyz");
}

TEST(Dechunk, ToleratesMissingFinalChunk) {
    EXPECT_EQ(dechunked("4\r\nabcd"), "abcd");
    EXPECT_EQ(dechunked("4\r\nabcdX"), "abcd");
    EXPECT_EQ(dechunked("4\r\nabcd\r\n"), "abcd");
    EXPECT_EQ(dechunked(""), "");
    // The two bytes after a chunk are skipped without being checked.
    EXPECT_EQ(dechunked("2\r\nabXY1\r\nc\r\n0\r\n\r\n"), "abc");
}

TEST(Dechunk, BrokenSizeOrShortChunkIsMalformed) {
    for (const char* body : {"4\r\nab", "zz\r\nabcd\r\n", "\r\nabcd", ";\r\n", " 4\r\nabcd\r\n", "4 \r\nabcd\r\n",
                             "-4\r\nabcd\r\n", "0x4\r\nabcd\r\n", "10000000000000000\r\n",
                             "7fffffffffffffff\r\nabcd\r\n"}) {
        EXPECT_EQ(dechunked(body), kMalformed) << body;
    }
}

bool whole(std::string_view response) { return isProvablyWhole(bytes(response)); }

TEST(ProvablyWhole, ADeclaredLengthAllThere) {
    EXPECT_TRUE(whole("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n127.0.0.1"));
    EXPECT_TRUE(whole("HTTP/1.1 200 OK\r\ncontent-LENGTH:\t 9 \r\nContent-Length: 9\r\n\r\n127.0.0.1"));
    EXPECT_TRUE(whole("HTTP/1.1 204 No Content\r\nContent-Length: 0\r\n\r\n"));
    EXPECT_TRUE(whole("HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\n127.0.0.1")) << "more than declared";
    EXPECT_FALSE(whole("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n127.0.0."));
    EXPECT_FALSE(whole("HTTP/1.1 200 OK\r\n\r\n127.0.0.1")) << "no length";
    EXPECT_FALSE(whole("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n")) << "the head cut short";
    // Lengths that say nothing certain.
    for (const char* length : {"", "9x", "+9", "-9", "0x9", "9 9", "18446744073709551616"}) {
        EXPECT_FALSE(whole(std::string("HTTP/1.1 200 OK\r\nContent-Length: ") + length + "\r\n\r\n127.0.0.1"))
            << length;
    }
    EXPECT_FALSE(whole("HTTP/1.1 200 OK\r\nContent-Length: 9\r\nContent-Length: 2\r\n\r\n127.0.0.1"));
    EXPECT_FALSE(whole("HTTP/1.1 200 OK\r\nX-Content-Length: 2\r\n\r\n12")) << "another header's name";
}

TEST(ProvablyWhole, TheLastChunkSeen) {
    const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    EXPECT_TRUE(whole(chunked + "4\r\nabcd\r\n0\r\n\r\n"));
    EXPECT_TRUE(whole(chunked + "4\r\nabcd\r\n0;ext\r\n")) << "trailers and the last CRLF need not come";
    EXPECT_FALSE(whole(chunked + "4\r\nabcd\r\n"));
    EXPECT_FALSE(whole(chunked + "4\r\nabcd\r\n0"));
    EXPECT_FALSE(whole(chunked + "4\r\nab"));
    EXPECT_FALSE(whole(chunked + "zz\r\nabcd\r\n0\r\n\r\n")) << "broken coding";
    // Chunked coding decides over a length, as when the body is read.
    EXPECT_FALSE(whole("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nContent-Length: 3\r\n\r\n4\r\nab"));
    EXPECT_TRUE(whole("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\nContent-Length: 99\r\n\r\n0\r\n"));
}

}  // namespace
}  // namespace netvane::PublicIPService
