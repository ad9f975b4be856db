#include "tests/netcore/publicip/support/local_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace netvane::testing {
namespace {

void require(bool ok, const char* what) {
    if (!ok) throw std::runtime_error(std::string("local server: ") + what + ": " + std::strerror(errno));
}

ssl_ctx_st* serverContext(const TLSIdentity& identity) {
    SSL_CTX* context = SSL_CTX_new(TLS_server_method());
    require(context != nullptr, "TLS context");
    BIO* certificate = BIO_new_mem_buf(identity.certificatePEM.data(), static_cast<int>(identity.certificatePEM.size()));
    BIO* key = BIO_new_mem_buf(identity.keyPEM.data(), static_cast<int>(identity.keyPEM.size()));
    X509* x509 = PEM_read_bio_X509(certificate, nullptr, nullptr, nullptr);
    EVP_PKEY* pkey = PEM_read_bio_PrivateKey(key, nullptr, nullptr, nullptr);
    require(x509 && pkey && SSL_CTX_use_certificate(context, x509) == 1 && SSL_CTX_use_PrivateKey(context, pkey) == 1,
            "server identity");
    X509_free(x509);
    EVP_PKEY_free(pkey);
    BIO_free(certificate);
    BIO_free(key);
    return context;
}

UniqueFd listenOn(int family, std::uint16_t port) {
    UniqueFd fd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    require(static_cast<bool>(fd), "socket");
    const int on = 1;
    ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_storage storage{};
    socklen_t length;
    if (family == AF_INET6) {
        ::setsockopt(fd.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
        auto& v6 = reinterpret_cast<sockaddr_in6&>(storage);
        v6.sin6_family = AF_INET6;
        v6.sin6_addr = in6addr_loopback;
        v6.sin6_port = htons(port);
        length = sizeof v6;
    } else {
        auto& v4 = reinterpret_cast<sockaddr_in&>(storage);
        v4.sin_family = AF_INET;
        v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        v4.sin_port = htons(port);
        length = sizeof v4;
    }
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&storage), length) != 0) return UniqueFd();
    require(::listen(fd.get(), 256) == 0, "listen");
    return fd;
}

std::uint16_t boundPort(int fd) {
    sockaddr_storage storage{};
    socklen_t length = sizeof storage;
    require(::getsockname(fd, reinterpret_cast<sockaddr*>(&storage), &length) == 0, "getsockname");
    return ntohs(reinterpret_cast<sockaddr_in6&>(storage).sin6_port);  // same offset in both families
}

std::string addressText(const sockaddr_storage& storage) {
    char text[INET6_ADDRSTRLEN] = {};
    if (storage.ss_family == AF_INET6) {
        ::inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6&>(storage).sin6_addr, text, sizeof text);
    } else {
        ::inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in&>(storage).sin_addr, text, sizeof text);
    }
    return text;
}

}  // namespace

std::string Peer::readRequest() {
    std::string request;
    char buffer[4096];
    while (request.find("\r\n\r\n") == std::string::npos) {
        const int received = ssl_ ? SSL_read(ssl_, buffer, sizeof buffer)
                                  : static_cast<int>(::recv(fd_, buffer, sizeof buffer, 0));
        if (received <= 0) return "";
        request.append(buffer, static_cast<std::size_t>(received));
    }
    std::lock_guard lock(server_.mutex_);
    server_.requests_.push_back(request);
    return request;
}

bool Peer::write(std::string_view bytes) {
    while (!bytes.empty()) {
        const int sent = ssl_ ? SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size()))
                              : static_cast<int>(::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL));
        if (sent <= 0) return false;
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
}

void Peer::holdOpen() {
    std::unique_lock lock(server_.mutex_);
    server_.stopped_.wait(lock, [&] { return server_.stopping_; });
}

std::string Peer::serverName() const {
    const char* name = ssl_ ? SSL_get_servername(ssl_, TLSEXT_NAMETYPE_host_name) : nullptr;
    return name ? name : "";
}

void Peer::closeWithoutNotify() { ::shutdown(fd_, SHUT_RDWR); }

LocalServer::LocalServer(Handler handler, const std::optional<TLSIdentity>& identity)
    : handler_(std::move(handler)), stopEvent_(::eventfd(0, EFD_CLOEXEC)) {
    if (identity) tls_ = serverContext(*identity);
    // Both families on one port: bind ::1 anywhere, then 127.0.0.1 on the same
    // port, and start over if another process holds that one.
    for (int attempt = 0; attempt < 100 && !listeners_[1]; ++attempt) {
        listeners_[0] = listenOn(AF_INET6, 0);
        require(static_cast<bool>(listeners_[0]), "bind ::1");
        port_ = boundPort(listeners_[0].get());
        listeners_[1] = listenOn(AF_INET, port_);
    }
    require(static_cast<bool>(listeners_[1]), "bind 127.0.0.1");
    acceptor_ = std::thread([this] { acceptLoop(); });
}

LocalServer::~LocalServer() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        for (int fd : active_) ::shutdown(fd, SHUT_RDWR);
    }
    stopped_.notify_all();
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(stopEvent_.get(), &one, sizeof one);
    acceptor_.join();
    std::unique_lock lock(mutex_);
    idle_.wait(lock, [&] { return active_.empty(); });
    SSL_CTX_free(tls_);
}

std::vector<std::string> LocalServer::requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
}

void LocalServer::acceptLoop() {
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);  // inherited by every connection thread
    pollfd fds[3] = {{listeners_[0].get(), POLLIN, 0}, {listeners_[1].get(), POLLIN, 0}, {stopEvent_.get(), POLLIN, 0}};
    for (;;) {
        if (::poll(fds, 3, -1) < 0 && errno != EINTR) return;
        if (fds[2].revents != 0) return;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].revents == 0) continue;
            sockaddr_storage peer{};
            socklen_t length = sizeof peer;
            UniqueFd socket(::accept4(fds[i].fd, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC));
            if (!socket) continue;
            ++connections_;
            std::lock_guard lock(mutex_);
            if (stopping_) return;
            active_.push_back(socket.get());
            std::thread([this, fd = socket.release(), address = addressText(peer)] {
                serve(UniqueFd(fd), address);
            }).detach();
        }
    }
}

void LocalServer::serve(UniqueFd socket, std::string address) {
    SSL* ssl = nullptr;
    bool ready = true;
    if (tls_) {
        ssl = SSL_new(tls_);
        SSL_set_fd(ssl, socket.get());
        ready = SSL_accept(ssl) == 1;
    }
    if (ready) {
        Peer peer(*this, socket.get(), ssl, std::move(address));
        handler_(peer);
        if (ssl) SSL_shutdown(ssl);
    }
    SSL_free(ssl);
    // Closed under the lock: the destructor must never shut down a descriptor
    // number that has already been handed out again.
    std::lock_guard lock(mutex_);
    std::erase(active_, socket.get());
    socket.reset();
    idle_.notify_all();
}

LocalServer::Handler LocalServer::respond(std::string response) {
    return [response = std::move(response)](Peer& peer) {
        if (!peer.readRequest().empty()) peer.write(response);
    };
}

std::string LocalServer::ok(std::string_view body) {
    return "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + std::string(body);
}

}  // namespace netvane::testing
