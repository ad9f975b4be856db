// `netvane public-ip` as a user runs it, against local servers.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>

#include "tests/netcore/publicip/support/local_server.h"
#include "tests/netcore/publicip/support/python_tls_server.h"
#include "tests/netcore/publicip/support/test_ca.h"

namespace netvane {
namespace {

using testing::LocalServer;
using testing::Peer;

struct CommandRun {
    int status = -1;
    std::string out;  // stdout and stderr together
};

CommandRun netvane(const std::string& arguments) {
    (void)testing::trustedTestCA();  // the child inherits the trust-store variables
    const std::string commandLine = std::string(NETVANE_CLI) + " public-ip " + arguments + " 2>&1";
    CommandRun run;
    FILE* pipe = ::popen(commandLine.c_str(), "r");
    if (!pipe) return run;
    std::array<char, 4096> buffer;
    while (const std::size_t n = std::fread(buffer.data(), 1, buffer.size(), pipe)) run.out.append(buffer.data(), n);
    const int status = ::pclose(pipe);
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return run;
}

void echoAddress(Peer& peer) {
    if (!peer.readRequest().empty()) peer.write(LocalServer::ok(peer.address() + "\n"));
}

std::string port(const LocalServer& server) { return std::to_string(server.port()); }

TEST(PublicIPCommand, PrintsBothFamiliesAndWhatIsMissing) {
    LocalServer server(echoAddress);
    const CommandRun v4 = netvane("--url http://127.0.0.1:" + port(server) + "/ip");
    EXPECT_EQ(v4.status, 0);
    EXPECT_EQ(v4.out, "IPv4: 127.0.0.1\nIPv6: unavailable\n");
    const CommandRun v6 = netvane("--url 'http://[::1]:" + port(server) + "/ip' --json");
    EXPECT_EQ(v6.status, 0);
    EXPECT_NE(v6.out.find("\"ipv6\": \"::1\""), std::string::npos) << v6.out;
    EXPECT_EQ(v6.out.find("ipv4"), std::string::npos) << v6.out;
}

TEST(PublicIPCommand, TLSWithJSONKeyPath) {
    LocalServer server(
        [](Peer& peer) {
            if (!peer.readRequest().empty()) peer.write(LocalServer::ok(R"({"data": {"ip": ")" + peer.address() + "\"}}"));
        },
        testing::trustedTestCA().issue({}, {"127.0.0.1"}));
    const CommandRun run = netvane("--url https://127.0.0.1:" + port(server) + "/ip --json-key-path data.ip");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out, "IPv4: 127.0.0.1\nIPv6: unavailable\n");
}

TEST(PublicIPCommand, BothFamiliesFailingExitsOneWithTheText) {
    LocalServer server(LocalServer::respond("HTTP/1.1 503 Busy\r\n\r\n"));
    const CommandRun text = netvane("--url http://127.0.0.1:" + port(server) + "/ip");
    EXPECT_EQ(text.status, 1);
    EXPECT_EQ(text.out, "netvane: The server answered HTTP 503\n");
    const CommandRun json = netvane("--url http://127.0.0.1:" + port(server) + "/ip --json");
    EXPECT_EQ(json.status, 1);
    EXPECT_NE(json.out.find("\"error\": \"The server answered HTTP 503\""), std::string::npos) << json.out;
}

// What a user of a small HTTPS service sees: Python's own server ends every
// answer without close_notify.
TEST(PublicIPCommand, HTTPSWithoutCloseNotifyAnswersWhenTheBodyIsWhole) {
    testing::PythonTLSServer server(testing::trustedTestCA().issue({}, {"127.0.0.1"}));
    const std::string base = "https://127.0.0.1:" + std::to_string(server.port());
    const CommandRun whole = netvane("--url " + base + "/length");
    EXPECT_EQ(whole.status, 0);
    EXPECT_EQ(whole.out, "IPv4: 127.0.0.1\nIPv6: unavailable\n");
    const CommandRun cut = netvane("--url " + base + "/short");
    EXPECT_EQ(cut.status, 1);
    EXPECT_EQ(cut.out, "netvane: The secure connection was closed before the response was complete\n");
}

TEST(PublicIPCommand, UsageErrorsExitTwo) {
    for (const char* arguments : {"--provider custom", "--provider EchoPrimary", "--provider", "--json-key-path ip",
                                  "--provider echoPrimary --url http://x/", "extra", "--json --json"}) {
        EXPECT_EQ(netvane(arguments).status, 2) << arguments;
    }
    // A URL the lookup cannot ask is refused before any attempt, with the reason.
    const CommandRun bad = netvane("--url ftp://127.0.0.1/ip");
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.out.find("the URL 'ftp://127.0.0.1/ip' can only be http or https"), std::string::npos) << bad.out;
    const CommandRun help = netvane("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("echoSecondary"), std::string::npos);
}

}  // namespace
}  // namespace netvane
