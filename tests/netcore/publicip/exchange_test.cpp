// The exchange algorithm against scripted streams: what is sent, how much is
// asked for per read, and when reading stops.
#include <gtest/gtest.h>

#include <cstring>
#include <deque>

#include "netcore/publicip/http_exchange.h"

namespace netvane::PublicIPService {
namespace {

struct Script {
    std::deque<std::string> replies{};  // one per receive, then the stream closes
    bool endless = false;               // after the replies, every read is filled to the brim
    std::optional<Error> failure{};     // after the replies, receive fails with this
    std::string sent{};
    std::vector<std::size_t> readSizes{};
};

class ScriptedStream final : public ByteStream {
public:
    explicit ScriptedStream(Script& script) : script_(script) {}

    Status sendAll(std::span<const std::uint8_t> bytes) override {
        script_.sent.append(bytes.begin(), bytes.end());
        return {};
    }

    Result<std::size_t> receive(std::span<std::uint8_t> buffer) override {
        script_.readSizes.push_back(buffer.size());
        if (!script_.replies.empty()) {
            const std::string reply = std::move(script_.replies.front());
            script_.replies.pop_front();
            std::memcpy(buffer.data(), reply.data(), reply.size());
            return reply.size();
        }
        if (script_.failure) return *script_.failure;
        if (script_.endless) {
            std::memset(buffer.data(), 'x', buffer.size());
            return buffer.size();
        }
        return std::size_t{0};
    }

private:
    Script& script_;
};

class ScriptedConnector final : public StreamConnector {
public:
    explicit ScriptedConnector(Script& script) : script_(script) {}

    Result<std::unique_ptr<ByteStream>> open(const StreamTarget& target, std::chrono::milliseconds timeout,
                                             const Cancellation*) override {
        targets.push_back(target);
        timeouts.push_back(timeout);
        return std::unique_ptr<ByteStream>(new ScriptedStream(script_));
    }

    std::vector<StreamTarget> targets;
    std::vector<std::chrono::milliseconds> timeouts;

private:
    Script& script_;
};

std::string text(const Bytes& data) { return {data.begin(), data.end()}; }

TEST(Exchange, SendsRequestAndGathersEveryReadUntilClose) {
    Script script{.replies = {"HTTP/1.1 200 OK\r\n", "\r\n192.0.2", ".1"}};
    ScriptedStream stream(script);
    const auto response = exchange(stream, "GET / HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(response.ok());
    EXPECT_EQ(text(*response), "HTTP/1.1 200 OK\r\n\r\n192.0.2.1");
    EXPECT_EQ(script.sent, "GET / HTTP/1.1\r\n\r\n");
    EXPECT_EQ(script.readSizes, std::vector<std::size_t>(4, kReadSize));
}

TEST(Exchange, StopsReadingOnceOverTheCap) {
    Script script{.endless = true};
    ScriptedStream stream(script);
    const auto response = exchange(stream, "GET / HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(response.ok());
    EXPECT_GT(response->size(), kResponseCap);
    EXPECT_LE(response->size(), kResponseCap + kReadSize);
    EXPECT_EQ(script.readSizes.size(), kResponseCap / kReadSize + 1);
}

TEST(Exchange, ExactlyTheCapKeepsReading) {
    Script script;
    for (std::size_t left = kResponseCap; left > 0;) {
        const std::size_t size = std::min<std::size_t>(left, 50'000);
        script.replies.push_back(std::string(size, 'y'));
        left -= size;
    }
    script.replies.push_back("z");
    ScriptedStream stream(script);
    const auto response = exchange(stream, "GET / HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(response.ok());
    EXPECT_EQ(response->size(), kResponseCap + 1);
    EXPECT_TRUE(script.replies.empty());
}

TEST(Exchange, ReceiveFailureEndsTheExchange) {
    Script script{.replies = {"HTTP/1.1 200"}, .failure = posixError(ECONNRESET)};
    ScriptedStream stream(script);
    const auto response = exchange(stream, "GET / HTTP/1.1\r\n\r\n");
    ASSERT_FALSE(response.ok());
    EXPECT_EQ(response.error(), posixError(ECONNRESET));
}

// A TLS close without close_notify: the response read so far, or the error.
std::string endedWithoutNotify(std::vector<std::string> pieces) {
    Script script{.failure = closedWithoutNotifyError()};
    script.replies.assign(pieces.begin(), pieces.end());
    ScriptedStream stream(script);
    const auto response = exchange(stream, "GET / HTTP/1.1\r\n\r\n");
    return response ? text(*response) : "error: " + response.error().message;
}

TEST(Exchange, CloseWithoutNotifyEndsOnlyAProvablyWholeAnswer) {
    const std::string cut = "error: " + closedWithoutNotifyError().message;
    const std::string sized = "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n";
    const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    // Whole: the declared length all there, however it arrived; the last chunk seen.
    EXPECT_EQ(endedWithoutNotify({sized + "127.0.0.1"}), sized + "127.0.0.1");
    EXPECT_EQ(endedWithoutNotify({sized, "127.0", ".0.1"}), sized + "127.0.0.1");
    EXPECT_EQ(endedWithoutNotify({chunked + "9\r\n127.0.0.1\r\n0\r\n"}), chunked + "9\r\n127.0.0.1\r\n0\r\n");
    // Cut short: fewer bytes than declared, a chunk or the last chunk missing,
    // no framing at all, the head itself.
    EXPECT_EQ(endedWithoutNotify({sized + "127.0.0."}), cut);
    EXPECT_EQ(endedWithoutNotify({chunked + "9\r\n127.0.0.1\r\n"}), cut);
    EXPECT_EQ(endedWithoutNotify({chunked + "9\r\n127.0"}), cut);
    EXPECT_EQ(endedWithoutNotify({"HTTP/1.1 200 OK\r\n\r\n127.0.0.1"}), cut);
    EXPECT_EQ(endedWithoutNotify({"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n"}), cut);
    EXPECT_EQ(endedWithoutNotify({}), cut);
}

TEST(Exchange, OtherReceiveErrorsNeverEndAWholeAnswer) {
    Script script{.replies = {"HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n127.0.0.1"},
                  .failure = posixError(ECONNRESET)};
    ScriptedStream stream(script);
    const auto response = exchange(stream, "GET / HTTP/1.1\r\n\r\n");
    ASSERT_FALSE(response.ok());
    EXPECT_EQ(response.error(), posixError(ECONNRESET));
}

TEST(Get, OpensTheURLsEndpointAndSendsTheFixedRequest) {
    Script script{.replies = {"HTTP/1.1 200 OK\r\n\r\n192.0.2.1"}};
    ScriptedConnector connector(script);
    const auto body = get("https://echo.example:8443/x?y=1", IPVersion::v6,
                          {.timeout = std::chrono::milliseconds(1234), .connector = &connector});
    ASSERT_TRUE(body.ok()) << body.error().message;
    EXPECT_EQ(text(*body), "192.0.2.1");
    ASSERT_EQ(connector.targets.size(), 1u);
    EXPECT_EQ(connector.targets[0], (StreamTarget{"echo.example", 8443, IPVersion::v6, true}));
    EXPECT_EQ(connector.timeouts[0], std::chrono::milliseconds(1234));
    EXPECT_EQ(script.sent,
              "GET /x?y=1 HTTP/1.1\r\nHost: echo.example\r\nUser-Agent: Netvane\r\nAccept: */*\r\n"
              "Connection: close\r\n\r\n");
}

TEST(Get, BadURLNeverOpensAStream) {
    Script script;
    ScriptedConnector connector(script);
    const auto body = get("ftp://echo.example/ip", IPVersion::v4, {.connector = &connector});
    ASSERT_FALSE(body.ok());
    EXPECT_EQ(body.error(), PublicIPError::badURL().toError());
    EXPECT_TRUE(connector.targets.empty());
}

TEST(Get, OversizedResponseIsParsedAsItStands) {
    Script script{.replies = {"HTTP/1.1 200 OK\r\n\r\n"}, .endless = true};
    ScriptedConnector connector(script);
    const auto body = get("http://echo.example/ip", IPVersion::v4, {.connector = &connector});
    ASSERT_TRUE(body.ok());
    EXPECT_GT(body->size(), kResponseCap - 100);
    EXPECT_EQ(body->back(), 'x');
}

}  // namespace
}  // namespace netvane::PublicIPService
