// A scriptable HTTP(S) server on 127.0.0.1 and ::1 (the same port on both),
// for exercising the public-IP lookup without the internet.
//
// Each connection runs the handler on its own thread; the destructor stops
// accepting, wakes handlers that hold their connection open and joins every
// thread. Server threads ignore SIGPIPE among themselves only, so a client
// that raised one would still fail the test.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/unique_fd.h"
#include "tests/netcore/publicip/support/test_ca.h"

struct ssl_st;
struct ssl_ctx_st;

namespace netvane::testing {

class LocalServer;

class Peer {
public:
    // The client's address as text: "127.0.0.1" or "::1".
    const std::string& address() const { return address_; }
    // Reads up to the end of the request head ("" if the client closed first).
    std::string readRequest();
    // False once the client has gone.
    bool write(std::string_view bytes);
    // Keeps the connection open without answering until the server stops.
    void holdOpen();
    // The name the client sent with SNI; empty without TLS or SNI.
    std::string serverName() const;
    // Ends the connection the way many servers do: no TLS close_notify.
    void closeWithoutNotify();

private:
    friend class LocalServer;
    Peer(LocalServer& server, int fd, ssl_st* ssl, std::string address)
        : server_(server), fd_(fd), ssl_(ssl), address_(std::move(address)) {}

    LocalServer& server_;
    int fd_;
    ssl_st* ssl_;
    std::string address_;
};

class LocalServer {
public:
    using Handler = std::function<void(Peer&)>;

    // Plain HTTP, or HTTPS with `identity`.
    explicit LocalServer(Handler handler, const std::optional<TLSIdentity>& identity = std::nullopt);
    ~LocalServer();
    LocalServer(const LocalServer&) = delete;
    LocalServer& operator=(const LocalServer&) = delete;

    std::uint16_t port() const { return port_; }
    // Every request head received so far, in arrival order.
    std::vector<std::string> requests() const;
    int connections() const { return connections_.load(); }

    // A handler that reads the request, writes `response` and closes.
    static Handler respond(std::string response);
    // A plain-text 200 response with this body.
    static std::string ok(std::string_view body);

private:
    friend class Peer;
    void acceptLoop();
    void serve(UniqueFd socket, std::string address);

    Handler handler_;
    ssl_ctx_st* tls_ = nullptr;
    UniqueFd listeners_[2];
    UniqueFd stopEvent_;
    std::uint16_t port_ = 0;
    std::atomic<int> connections_{0};

    mutable std::mutex mutex_;
    std::condition_variable stopped_;
    bool stopping_ = false;
    std::condition_variable idle_;
    std::vector<std::string> requests_;
    std::vector<int> active_;  // connections being served
    std::thread acceptor_;
};

}  // namespace netvane::testing
