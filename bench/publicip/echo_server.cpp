// A local echo service for the whole-process benchmark: answers every GET with
// the client's address as plain text, on 127.0.0.1 and ::1, plain or TLS.
//
//   publicip_echo_server [--tls CA_FILE] [--name HOST]...
//
// Prints the port on the first line of stdout, then serves until stdin closes.
// With --tls it makes a certificate authority, writes its certificate to
// CA_FILE for the clients to trust, and serves a certificate for each HOST.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "tests/netcore/publicip/support/local_server.h"
#include "tests/netcore/publicip/support/test_ca.h"

using netvane::testing::LocalServer;
using netvane::testing::Peer;

int main(int argc, char** argv) {
    std::string caFile;
    std::vector<std::string> names;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if ((arg == "--tls" || arg == "--name") && i + 1 < argc) {
            (arg == "--tls" ? caFile : names.emplace_back()) = argv[++i];
        } else {
            std::fprintf(stderr, "usage: %s [--tls CA_FILE] [--name HOST]...\n", argv[0]);
            return 2;
        }
    }
    std::optional<netvane::testing::TLSIdentity> identity;
    netvane::testing::TestCA ca;
    if (!caFile.empty()) {
        std::ofstream(caFile) << ca.certificatePEM();
        identity = ca.issue(names, {"127.0.0.1", "::1"});
    }
    LocalServer server(
        [](Peer& peer) {
            if (!peer.readRequest().empty()) peer.write(LocalServer::ok(peer.address() + "\n"));
        },
        identity);
    std::printf("%u\n", static_cast<unsigned>(server.port()));
    std::fflush(stdout);
    std::string line;
    while (std::getline(std::cin, line)) {
    }
    return 0;
}
