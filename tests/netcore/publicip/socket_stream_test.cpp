// One attempt over the Linux sockets and TLS against servers on 127.0.0.1 and ::1.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/stat.h>
#include <unistd.h>

#include <future>
#include <latch>
#include <mutex>
#include <set>

#include "netcore/publicip/http_exchange.h"
#include "netcore/publicip/linux/byte_stream.h"
#include "tests/netcore/publicip/support/local_server.h"
#include "tests/netcore/publicip/support/loopback_names.h"
#include "tests/netcore/publicip/support/python_tls_server.h"
#include "tests/temporary_directory.h"

namespace netvane::PublicIPService {
namespace {

using netvane::testing::LocalServer;
using netvane::testing::Peer;
using netvane::testing::trustedTestCA;
using namespace std::chrono_literals;

std::string text(const Bytes& data) { return {data.begin(), data.end()}; }

void echoAddress(Peer& peer) {
    if (!peer.readRequest().empty()) peer.write(LocalServer::ok(peer.address() + "\n"));
}

// Headers, then body bytes for as long as the client keeps reading.
void endlessBody(Peer& peer) {
    if (peer.readRequest().empty()) return;
    if (!peer.write("HTTP/1.1 200 OK\r\n\r\n")) return;
    const std::string block(65'536, 'x');
    while (peer.write(block)) {
    }
}

class SocketStreamTest : public ::testing::Test {
protected:
    SocketStreamTest() { (void)trustedTestCA(); }

    Result<Bytes> fetch(const std::string& url, IPVersion version, std::chrono::milliseconds timeout = 5s,
                        const Cancellation* cancellation = nullptr) {
        return get(url, version, {.timeout = timeout, .connector = &connector_, .cancellation = cancellation});
    }

    SocketStreamConnector connector_{testing::loopbackResolver()};
};

TEST_F(SocketStreamTest, EachFamilyReachesItsOwnLoopback) {
    LocalServer server(echoAddress);
    const std::string url = "http://dual.test:" + std::to_string(server.port()) + "/ip";
    EXPECT_EQ(text(*fetch(url, IPVersion::v4)), "127.0.0.1\n");
    EXPECT_EQ(text(*fetch(url, IPVersion::v6)), "::1\n");
}

TEST_F(SocketStreamTest, SystemResolverTakesLiteralsOfTheRequestedFamily) {
    LocalServer server(echoAddress);
    const std::string port = std::to_string(server.port());
    auto v4 = get("http://127.0.0.1:" + port + "/ip", IPVersion::v4, {.timeout = 5s});
    auto v6 = get("http://[::1]:" + port + "/ip", IPVersion::v6, {.timeout = 5s});
    ASSERT_TRUE(v4.ok()) << v4.error().message;
    ASSERT_TRUE(v6.ok()) << v6.error().message;
    EXPECT_EQ(text(*v4), "127.0.0.1\n");
    EXPECT_EQ(text(*v6), "::1\n");
}

TEST_F(SocketStreamTest, NoFallbackToTheOtherFamily) {
    LocalServer server(echoAddress);
    const std::string port = std::to_string(server.port());
    for (const auto& [url, version] : {std::pair{"http://127.0.0.1:" + port + "/", IPVersion::v6},
                                       std::pair{"http://[::1]:" + port + "/", IPVersion::v4},
                                       std::pair{"http://v4.test:" + port + "/", IPVersion::v6},
                                       std::pair{"http://v6.test:" + port + "/", IPVersion::v4}}) {
        const auto body = fetch(url, version);
        ASSERT_FALSE(body.ok()) << url;
        EXPECT_EQ(body.error().domain, kAddressInfoErrorDomain) << url;
    }
    EXPECT_EQ(server.connections(), 0);
}

TEST_F(SocketStreamTest, SendsExactlyTheRequest) {
    LocalServer server(echoAddress);
    const std::string url = "http://dual.test:" + std::to_string(server.port()) + "/a/b?c=d";
    ASSERT_TRUE(fetch(url, IPVersion::v4).ok());
    EXPECT_EQ(server.requests(), std::vector<std::string>{requestText(*parseLookupURL(url))});
}

TEST_F(SocketStreamTest, RefusedConnectionReportsTheSystemError) {
    std::uint16_t port;
    {
        LocalServer closed(echoAddress);
        port = closed.port();
    }
    const auto body = fetch("http://dual.test:" + std::to_string(port) + "/", IPVersion::v4);
    ASSERT_FALSE(body.ok());
    EXPECT_EQ(body.error(), posixError(ECONNREFUSED));
}

TEST_F(SocketStreamTest, TLSVerifiesNameAndSendsSNI) {
    std::vector<std::string> names;
    std::mutex mutex;
    LocalServer server(
        [&](Peer& peer) {
            {
                std::lock_guard lock(mutex);
                names.push_back(peer.serverName());
            }
            echoAddress(peer);
        },
        trustedTestCA().issue({"dual.test"}, {"127.0.0.1", "::1"}));
    const std::string port = std::to_string(server.port());
    const auto v4 = fetch("https://dual.test:" + port + "/ip", IPVersion::v4);
    const auto v6 = fetch("https://dual.test:" + port + "/ip", IPVersion::v6);
    const auto literal = fetch("https://[::1]:" + port + "/ip", IPVersion::v6);
    ASSERT_TRUE(v4.ok()) << v4.error().message;
    ASSERT_TRUE(v6.ok()) << v6.error().message;
    ASSERT_TRUE(literal.ok()) << literal.error().message;
    EXPECT_EQ(text(*v4), "127.0.0.1\n");
    EXPECT_EQ(text(*v6), "::1\n");
    // Under the lock: the server's push comes before its answer, but only
    // through the socket, which the race detector cannot see.
    std::lock_guard lock(mutex);
    EXPECT_EQ(names, (std::vector<std::string>{"dual.test", "dual.test", ""}));  // no SNI for an address
}

TEST_F(SocketStreamTest, TLSRefusesCertificateForAnotherHost) {
    LocalServer server(echoAddress, trustedTestCA().issue({"other.test"}, {"192.0.2.1"}));
    const std::string port = std::to_string(server.port());
    const auto byName = fetch("https://dual.test:" + port + "/ip", IPVersion::v4);
    const auto byAddress = fetch("https://127.0.0.1:" + port + "/ip", IPVersion::v4);
    ASSERT_FALSE(byName.ok());
    ASSERT_FALSE(byAddress.ok());
    EXPECT_EQ(byName.error().domain, kTLSErrorDomain);
    EXPECT_EQ(byName.error().message, "The server's certificate isn't valid: hostname mismatch");
    EXPECT_EQ(byAddress.error().message, "The server's certificate isn't valid: IP address mismatch");
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(SocketStreamTest, TLSRefusesUntrustedIssuer) {
    const testing::TestCA stranger;
    LocalServer server(echoAddress, stranger.issue({"dual.test"}, {}));
    const auto body = fetch("https://dual.test:" + std::to_string(server.port()) + "/ip", IPVersion::v6);
    ASSERT_FALSE(body.ok());
    EXPECT_EQ(body.error().message, "The server's certificate isn't valid: unable to get local issuer certificate");
}

// Without close_notify only the answer's own framing tells a whole body from
// one cut short by a bare TCP close, which anyone on the path can send.
TEST_F(SocketStreamTest, TLSCloseWithoutNotifyEndsOnlyAProvablyWholeAnswer) {
    const std::string cut = "error: " + closedWithoutNotifyError().message;
    const struct {
        std::string answer;
        bool notify;
        std::string outcome;
    } cases[] = {
        {"HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n127.0.0.1\n", false, "127.0.0.1\n"},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n9\r\n127.0.0.1\r\n0\r\n\r\n", false, "127.0.0.1"},
        {"HTTP/1.1 200 OK\r\nContent-Length: 20\r\n\r\n127.0.0.1\n", false, cut},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\n127\r\n", false, cut},
        {"HTTP/1.1 200 OK\r\n\r\n127.0.0.1\n", false, cut},
        // close_notify ends any answer: the body is whatever came.
        {"HTTP/1.1 200 OK\r\n\r\n127.0.0.1\n", true, "127.0.0.1\n"},
    };
    for (const auto& c : cases) {
        LocalServer server(
            [&c](Peer& peer) {
                if (peer.readRequest().empty()) return;
                peer.write(c.answer);
                if (!c.notify) peer.closeWithoutNotify();
            },
            trustedTestCA().issue({"dual.test"}, {}));
        const auto fetched = fetch("https://dual.test:" + std::to_string(server.port()) + "/ip", IPVersion::v4);
        EXPECT_EQ(fetched ? text(*fetched) : "error: " + fetched.error().message, c.outcome) << c.answer;
        if (!fetched) {
            EXPECT_EQ(fetched.error(), closedWithoutNotifyError());
        }
    }
}

// The same against Python's own HTTPS server, which never sends close_notify.
TEST_F(SocketStreamTest, PythonsHTTPSServerWithoutCloseNotify) {
    testing::PythonTLSServer server(trustedTestCA().issue({"dual.test"}, {}));
    const std::string base = "https://dual.test:" + std::to_string(server.port());
    for (const IPVersion version : {IPVersion::v4, IPVersion::v6}) {
        const std::string address = version == IPVersion::v4 ? "127.0.0.1" : "::1";
        for (const char* whole : {"/length", "/chunked"}) {
            const auto fetched = fetch(base + whole, version);
            ASSERT_TRUE(fetched.ok()) << whole << ": " << fetched.error().message;
            EXPECT_EQ(text(*fetched), address + "\n") << whole;
        }
        for (const char* cutShort : {"/short", "/cut", "/unframed"}) {
            const auto fetched = fetch(base + cutShort, version);
            ASSERT_FALSE(fetched.ok()) << cutShort << " accepted " << text(*fetched);
            EXPECT_EQ(fetched.error(), closedWithoutNotifyError()) << cutShort;
        }
    }
}

TEST_F(SocketStreamTest, ChunkedBodyArrivingInPieces) {
    LocalServer server([](Peer& peer) {
        if (peer.readRequest().empty()) return;
        for (const char* piece : {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n", "3;ext=1\r\n::",
                                  "1\r\n", "0\r\n\r\n"}) {
            peer.write(piece);
            std::this_thread::sleep_for(10ms);
        }
    });
    const auto body = fetch("http://dual.test:" + std::to_string(server.port()) + "/", IPVersion::v6);
    ASSERT_TRUE(body.ok()) << body.error().message;
    EXPECT_EQ(text(*body), "::1");
}

TEST_F(SocketStreamTest, StatusErrorsComeFromTheWire) {
    LocalServer moved(LocalServer::respond("HTTP/1.1 301 Moved Permanently\r\nLocation: https://x/\r\n\r\n"));
    LocalServer empty(LocalServer::respond("HTTP/1.1 204 No Content\r\n\r\n"));
    LocalServer numberless(LocalServer::respond("HTTP/1.1\r\n\r\n1.2.3.4"));
    auto at = [](const LocalServer& server) { return "http://dual.test:" + std::to_string(server.port()) + "/"; };
    EXPECT_EQ(fetch(at(moved), IPVersion::v4).error(), PublicIPError::http(301).toError());
    EXPECT_EQ(fetch(at(numberless), IPVersion::v4).error(), PublicIPError::http(0).toError());
    const auto body = fetch(at(empty), IPVersion::v4);
    ASSERT_TRUE(body.ok());
    EXPECT_TRUE(body->empty());
}

class SocketStreamCapTest : public SocketStreamTest, public ::testing::WithParamInterface<bool> {};

TEST_P(SocketStreamCapTest, ServerThatNeverClosesIsCutAtTheCap) {
    const bool tls = GetParam();
    LocalServer server(endlessBody, tls ? std::optional(trustedTestCA().issue({"dual.test"}, {})) : std::nullopt);
    const std::string url =
        std::string(tls ? "https" : "http") + "://dual.test:" + std::to_string(server.port()) + "/";
    const auto body = fetch(url, IPVersion::v4, 10s);
    ASSERT_TRUE(body.ok()) << body.error().message;
    EXPECT_GT(body->size() + 19, kResponseCap);  // 19 bytes of status line and headers
    EXPECT_LE(body->size(), kResponseCap + kReadSize);
}

INSTANTIATE_TEST_SUITE_P(PlainAndTLS, SocketStreamCapTest, ::testing::Bool());

TEST_F(SocketStreamTest, SilentServerRunsIntoTheDeadline) {
    LocalServer server([](Peer& peer) {
        peer.readRequest();
        peer.holdOpen();
    });
    const auto start = std::chrono::steady_clock::now();
    const auto body = fetch("http://dual.test:" + std::to_string(server.port()) + "/", IPVersion::v6, 300ms);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    ASSERT_FALSE(body.ok());
    EXPECT_EQ(body.error(), timedOutError());
    EXPECT_EQ(body.error().message, "The request timed out.");
    EXPECT_GE(elapsed, 290ms);
}

TEST_F(SocketStreamTest, SilentTLSServerRunsIntoTheDeadlineDuringHandshake) {
    // A plain server that accepts and never speaks: the client waits in its handshake.
    LocalServer server([](Peer& peer) { peer.holdOpen(); });
    const auto body = fetch("https://dual.test:" + std::to_string(server.port()) + "/", IPVersion::v4, 200ms);
    ASSERT_FALSE(body.ok());
    EXPECT_EQ(body.error(), timedOutError());
}

TEST_F(SocketStreamTest, CancellationWakesTheWaitAtOnce) {
    LocalServer server([](Peer& peer) {
        peer.readRequest();
        peer.holdOpen();
    });
    Cancellation cancellation;
    auto body = std::async(std::launch::async, [&] {
        return fetch("http://dual.test:" + std::to_string(server.port()) + "/", IPVersion::v4, 60s, &cancellation);
    });
    EXPECT_EQ(body.wait_for(100ms), std::future_status::timeout);
    cancellation.cancel();
    ASSERT_EQ(body.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(body.get().error(), cancelledError());
    // Already cancelled: a new attempt fails before connecting.
    EXPECT_EQ(fetch("http://dual.test:" + std::to_string(server.port()) + "/", IPVersion::v4, 5s, &cancellation)
                  .error(),
              cancelledError());
    EXPECT_EQ(server.connections(), 1);
}

TEST_F(SocketStreamTest, HungResolverIsCutShortByTheDeadline) {
    auto release = std::make_shared<std::latch>(1);
    SocketStreamConnector connector([release](const std::string&, std::uint16_t, IPVersion) {
        release->wait();
        return Result<std::vector<SocketAddress>>(Error{kAddressInfoErrorDomain, EAI_AGAIN, "late"});
    });
    const auto body = get("http://hang.test/", IPVersion::v4, {.timeout = 200ms, .connector = &connector});
    release->count_down();
    ASSERT_FALSE(body.ok());
    EXPECT_EQ(body.error(), timedOutError());
}

// Resolutions run on threads that wait for the next one, so that many
// lookups do not start a thread each; one that hangs keeps its thread, and
// the next resolution gets another.
TEST_F(SocketStreamTest, ResolverThreadsServeOneResolutionAfterAnother) {
    LocalServer server(echoAddress);
    const std::string url = "http://dual.test:" + std::to_string(server.port()) + "/ip";
    auto threads = std::make_shared<std::set<pid_t>>();
    auto threadsMutex = std::make_shared<std::mutex>();
    auto release = std::make_shared<std::latch>(1);
    SocketStreamConnector connector([=](const std::string& host, std::uint16_t port, IPVersion version) {
        {
            std::lock_guard lock(*threadsMutex);
            threads->insert(::gettid());
        }
        if (host == "hang.test") release->wait();
        return testing::loopbackResolver()(host, port, version);
    });
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(get(url, i % 2 ? IPVersion::v4 : IPVersion::v6, {.timeout = 5s, .connector = &connector}).ok());
    }
    {
        std::lock_guard lock(*threadsMutex);
        EXPECT_LE(threads->size(), 2u) << "a thread for each resolution";
    }
    SocketStreamConnector& hanging = connector;
    const auto hung = get("http://hang.test/", IPVersion::v4, {.timeout = 200ms, .connector = &hanging});
    ASSERT_FALSE(hung.ok());
    EXPECT_EQ(hung.error(), timedOutError());
    const auto next = get(url, IPVersion::v4, {.timeout = 5s, .connector = &hanging});
    release->count_down();
    ASSERT_TRUE(next.ok()) << next.error().message;
    EXPECT_EQ(text(*next), "127.0.0.1\n");
}

// Building the TLS context reads the trust store, which may never answer (a
// FIFO named by SSL_CERT_FILE): the attempt still ends at its deadline.
TEST_F(SocketStreamTest, TrustStoreThatNeverAnswersIsCutShortByTheDeadline) {
    LocalServer server(echoAddress, trustedTestCA().issue({"dual.test"}, {}));
    testing::TemporaryDirectory directory("netvane-trust-fifo");
    const std::string fifo = directory.path() + "/ca.pem";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::string trusted = testing::trustedTestCAFile();
    ::setenv("SSL_CERT_FILE", fifo.c_str(), 1);
    // Once the attempt is over (or, should it hang, after a while), the
    // reader blocked on the FIFO is let go: opening the other end and closing
    // it gives it an empty file.
    std::promise<void> attemptOver;
    std::thread releaser([&fifo, over = attemptOver.get_future()] {
        over.wait_for(5s);
        const int fd = ::open(fifo.c_str(), O_WRONLY);
        if (fd >= 0) ::close(fd);
    });
    {
        SocketStreamConnector connector(testing::loopbackResolver());
        const auto body = get("https://dual.test:" + std::to_string(server.port()) + "/ip", IPVersion::v4,
                              {.timeout = 200ms, .connector = &connector});
        attemptOver.set_value();
        ::setenv("SSL_CERT_FILE", trusted.c_str(), 1);
        EXPECT_FALSE(body.ok());
        if (!body.ok()) {
            EXPECT_EQ(body.error(), timedOutError());
        }
    }
    releaser.join();
}

}  // namespace
}  // namespace netvane::PublicIPService
