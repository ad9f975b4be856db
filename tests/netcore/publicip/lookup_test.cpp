// The dual-stack lookup end to end against local servers on 127.0.0.1 and ::1.
#include <gtest/gtest.h>

#include <condition_variable>
#include <future>

#include "netcore/publicip/byte_stream.h"
#include "netcore/publicip/linux/byte_stream.h"
#include "netcore/publicip/public_ip.h"
#include "tests/netcore/publicip/support/local_server.h"
#include "tests/netcore/publicip/support/loopback_names.h"
#include "tests/netcore/publicip/support/test_ca.h"

namespace netvane {
namespace {

using testing::LocalServer;
using testing::Peer;
using namespace std::chrono_literals;

// Answers each family differently: `v4` for the 127.0.0.1 client, `v6` for ::1.
LocalServer::Handler perFamily(LocalServer::Handler v4, LocalServer::Handler v6) {
    return [=](Peer& peer) { (peer.address() == "127.0.0.1" ? v4 : v6)(peer); };
}

void echoAddress(Peer& peer) {
    if (!peer.readRequest().empty()) peer.write(LocalServer::ok(peer.address()));
}

void silent(Peer& peer) {
    peer.readRequest();
    peer.holdOpen();
}

class LookupTest : public ::testing::Test {
protected:
    PublicIPResult lookup(const std::string& url, const std::optional<std::string>& keyPath = std::nullopt,
                          std::chrono::milliseconds timeout = 5s, const Cancellation* cancellation = nullptr) {
        return PublicIPService::lookup(url, keyPath,
                                       {.timeout = timeout, .connector = &connector_, .cancellation = cancellation});
    }

    static std::string at(const LocalServer& server, const std::string& host = "dual.test") {
        return "http://" + host + ":" + std::to_string(server.port()) + "/ip";
    }

    SocketStreamConnector connector_{testing::loopbackResolver()};
};

TEST_F(LookupTest, BothFamiliesAnswerAtTheSameTime) {
    // Neither family is answered until both have connected, so only
    // concurrent attempts can succeed.
    std::mutex mutex;
    std::condition_variable arrived;
    int waiting = 0;
    LocalServer server([&](Peer& peer) {
        if (peer.readRequest().empty()) return;
        std::unique_lock lock(mutex);
        ++waiting;
        arrived.notify_all();
        const bool together = arrived.wait_for(lock, 4s, [&] { return waiting >= 2; });
        lock.unlock();
        peer.write(together ? LocalServer::ok(peer.address()) : "HTTP/1.1 503 Alone\r\n\r\n");
    });
    EXPECT_EQ(lookup(at(server)), (PublicIPResult{"127.0.0.1", "::1", std::nullopt}));
}

TEST_F(LookupTest, IPv4FailsIPv6Succeeds) {
    LocalServer server(perFamily(LocalServer::respond("HTTP/1.1 503 Busy\r\n\r\n"), echoAddress));
    EXPECT_EQ(lookup(at(server)), (PublicIPResult{std::nullopt, "::1", std::nullopt}));
}

TEST_F(LookupTest, IPv6FailsIPv4Succeeds) {
    LocalServer server(perFamily(echoAddress, silent));
    EXPECT_EQ(lookup(at(server), std::nullopt, 300ms), (PublicIPResult{"127.0.0.1", std::nullopt, std::nullopt}));
}

TEST_F(LookupTest, TLSOverBothFamilies) {
    LocalServer server(echoAddress, testing::trustedTestCA().issue({"dual.test"}, {}));
    EXPECT_EQ(lookup("https://dual.test:" + std::to_string(server.port()) + "/ip"),
              (PublicIPResult{"127.0.0.1", "::1", std::nullopt}));
}

TEST_F(LookupTest, SystemConnectorWithAnIPv4Literal) {
    LocalServer server(echoAddress);
    const auto result = PublicIPService::lookup(at(server, "127.0.0.1"), std::nullopt);
    EXPECT_EQ(result, (PublicIPResult{"127.0.0.1", std::nullopt, std::nullopt}));
}

TEST_F(LookupTest, HostWithoutIPv6AddressStillGivesIPv4) {
    LocalServer server(echoAddress);
    EXPECT_EQ(lookup(at(server, "v4.test")), (PublicIPResult{"127.0.0.1", std::nullopt, std::nullopt}));
}

TEST_F(LookupTest, BothFailingReportsOnlyTheIPv4Error) {
    LocalServer server(perFamily(LocalServer::respond("HTTP/1.1 503 Busy\r\n\r\n"), silent));
    EXPECT_EQ(lookup(at(server), std::nullopt, 300ms),
              (PublicIPResult{std::nullopt, std::nullopt, "The server answered HTTP 503"}));

    LocalServer reversed(perFamily(silent, LocalServer::respond("HTTP/1.1 503 Busy\r\n\r\n")));
    EXPECT_EQ(lookup(at(reversed), std::nullopt, 300ms),
              (PublicIPResult{std::nullopt, std::nullopt, "The request timed out."}));
}

TEST_F(LookupTest, BodyWithoutAddressIsNoAddress) {
    LocalServer text(LocalServer::respond(LocalServer::ok("hello")));
    LocalServer empty(LocalServer::respond("HTTP/1.1 204 No Content\r\n\r\n"));
    for (const LocalServer* server : {&text, &empty}) {
        EXPECT_EQ(lookup(at(*server)), (PublicIPResult{std::nullopt, std::nullopt, "The response has no IP address"}));
    }
}

TEST_F(LookupTest, BadURLFailsBothWithoutConnecting) {
    EXPECT_EQ(lookup("ftp://dual.test/ip"), (PublicIPResult{std::nullopt, std::nullopt, "The lookup URL isn't valid"}));
    EXPECT_EQ(lookup("not a url"), (PublicIPResult{std::nullopt, std::nullopt, "The lookup URL isn't valid"}));
}

TEST_F(LookupTest, JSONBodyWithAndWithoutKeyPath) {
    LocalServer nested([](Peer& peer) {
        if (!peer.readRequest().empty()) peer.write(LocalServer::ok(R"({"data": {"ip": ")" + peer.address() + "\"}}"));
    });
    LocalServer flat([](Peer& peer) {
        if (!peer.readRequest().empty()) peer.write(LocalServer::ok(R"({"query": ")" + peer.address() + "\"}"));
    });
    EXPECT_EQ(lookup(at(nested), "data.ip"), (PublicIPResult{"127.0.0.1", "::1", std::nullopt}));
    EXPECT_EQ(lookup(at(nested)).error, "The response has no IP address");
    EXPECT_EQ(lookup(at(flat)), (PublicIPResult{"127.0.0.1", "::1", std::nullopt}));
}

TEST_F(LookupTest, CancellingEndsBothAttemptsAtOnce) {
    LocalServer server(silent);
    Cancellation cancellation;
    auto result = std::async(std::launch::async, [&] { return lookup(at(server), std::nullopt, 60s, &cancellation); });
    EXPECT_EQ(result.wait_for(100ms), std::future_status::timeout);
    cancellation.cancel();
    ASSERT_EQ(result.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(result.get(), (PublicIPResult{std::nullopt, std::nullopt, cancelledError().message}));
}

}  // namespace
}  // namespace netvane
