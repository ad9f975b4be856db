#include "bench/publicip/bare_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace netvane {
namespace {

int connectTo(IPVersion version, std::uint16_t port) {
    sockaddr_storage address{};
    socklen_t length = 0;
    if (version == IPVersion::v4) {
        auto& v4 = reinterpret_cast<sockaddr_in&>(address);
        v4 = {.sin_family = AF_INET, .sin_port = htons(port), .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
        length = sizeof v4;
    } else {
        auto& v6 = reinterpret_cast<sockaddr_in6&>(address);
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(port);
        v6.sin6_addr = in6addr_loopback;
        length = sizeof v6;
    }
    const int fd = ::socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0) return fd;
    if (fd >= 0) ::close(fd);
    return -1;
}

std::string plain(int fd, const std::string& request) {
    if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) return "";
    std::string response;
    char buffer[65'536];
    ssize_t n;
    while ((n = ::recv(fd, buffer, sizeof buffer, 0)) > 0) response.append(buffer, static_cast<std::size_t>(n));
    return response;
}

std::string overTLS(SSL_CTX* context, const char* host, int fd, const std::string& request) {
    SSL* ssl = SSL_new(context);
    std::string response;
    SSL_set_fd(ssl, fd);
    SSL_set_tlsext_host_name(ssl, host);
    SSL_set1_host(ssl, host);
    if (SSL_connect(ssl) == 1 && SSL_write(ssl, request.data(), static_cast<int>(request.size())) > 0) {
        char buffer[65'536];
        int n;
        while ((n = SSL_read(ssl, buffer, sizeof buffer)) > 0) response.append(buffer, static_cast<std::size_t>(n));
    }
    SSL_free(ssl);
    return response;
}

}  // namespace

BareClient::BareClient(const char* host) : host_(host) {
    if (!host_) return;
    context_ = SSL_CTX_new(TLS_client_method());
    SSL_CTX_set_min_proto_version(context_, TLS1_2_VERSION);
    SSL_CTX_set_verify(context_, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_default_verify_paths(context_);
}

BareClient::~BareClient() { SSL_CTX_free(context_); }

std::string BareClient::exchange(IPVersion version, std::uint16_t port, const std::string& request) const {
    const int fd = connectTo(version, port);
    if (fd < 0) return "";
    std::string response = context_ ? overTLS(context_, host_, fd, request) : plain(fd, request);
    ::close(fd);
    return response;
}

}  // namespace netvane
