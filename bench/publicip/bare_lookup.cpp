// The floor of a whole `netvane public-ip` process, for compare_with_curl.sh:
// the bare exchange of bare_client.h over both families in parallel, with
// the TLS library linked at start as any client of it is.
//
//   publicip_bare_lookup PORT [--tls HOST]
//
// Prints both responses; exits 1 when either family failed.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>

#include "bench/publicip/bare_client.h"

int main(int argc, char** argv) {
    using netvane::IPVersion;
    const bool tls = argc == 4 && std::string_view(argv[2]) == "--tls";
    if (argc != 2 && !tls) {
        std::fprintf(stderr, "usage: %s PORT [--tls HOST]\n", argv[0]);
        return 2;
    }
    const auto port = static_cast<std::uint16_t>(std::atoi(argv[1]));
    const char* host = tls ? argv[3] : "localhost";
    const std::string request = std::string("GET /ip HTTP/1.1\r\nHost: ") + host +
                                "\r\nUser-Agent: Netvane\r\nAccept: */*\r\nConnection: close\r\n\r\n";
    const netvane::BareClient client(tls ? host : nullptr);
    std::string v4;
    std::thread other([&] { v4 = client.exchange(IPVersion::v4, port, request); });
    const std::string v6 = client.exchange(IPVersion::v6, port, request);
    other.join();
    std::printf("%s\n%s\n", v4.c_str(), v6.c_str());
    return v4.empty() || v6.empty() ? 1 : 0;
}
