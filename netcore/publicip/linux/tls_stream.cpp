#include "netcore/publicip/linux/tls_stream.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <climits>

#include "netcore/publicip/linux/byte_stream.h"
#include "netcore/publicip/linux/tls_library.h"
#include "netcore/publicip/public_ip.h"

namespace netvane {
namespace {

static_assert(kTLSClosedWithoutNotify == SSL_R_UNEXPECTED_EOF_WHILE_READING);

// The socket end of the TLS layer. Ours rather than the library's own socket
// BIO because that one writes with write(2), and a peer that has gone away
// would then kill the whole process with SIGPIPE.
struct SocketEnd {
    int fd = -1;
    bool eof = false;
};

// The library, once loaded. The socket end's callbacks run only inside its
// calls, so they find it there.
const TLSLibrary& tls() { return **tlsLibrary(); }

void clearRetry(BIO* bio) { tls().BIO_clear_flags(bio, BIO_FLAGS_RWS | BIO_FLAGS_SHOULD_RETRY); }
void setRetry(BIO* bio, int direction) { tls().BIO_set_flags(bio, direction | BIO_FLAGS_SHOULD_RETRY); }

int socketEndWrite(BIO* bio, const char* data, int length) {
    auto* end = static_cast<SocketEnd*>(tls().BIO_get_data(bio));
    clearRetry(bio);
    const ssize_t sent = ::send(end->fd, data, static_cast<std::size_t>(length), MSG_NOSIGNAL);
    if (sent >= 0) return static_cast<int>(sent);
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) setRetry(bio, BIO_FLAGS_WRITE);
    return -1;
}

int socketEndRead(BIO* bio, char* data, int length) {
    auto* end = static_cast<SocketEnd*>(tls().BIO_get_data(bio));
    clearRetry(bio);
    const ssize_t received = ::recv(end->fd, data, static_cast<std::size_t>(length), 0);
    if (received > 0) return static_cast<int>(received);
    if (received == 0) {
        end->eof = true;
        return 0;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) setRetry(bio, BIO_FLAGS_READ);
    return -1;
}

long socketEndControl(BIO* bio, int command, long, void*) {
    switch (command) {
        case BIO_CTRL_FLUSH:
            return 1;
        case BIO_CTRL_EOF:  // a bare close, reported by the TLS layer as an unexpected end (see makeTLSContext)
            return static_cast<SocketEnd*>(tls().BIO_get_data(bio))->eof ? 1 : 0;
        default:
            return 0;
    }
}

int socketEndCreate(BIO* bio) {
    tls().BIO_set_init(bio, 1);
    return 1;
}

const BIO_METHOD* socketEndMethod() {
    static BIO_METHOD* method = [] {
        const TLSLibrary& t = tls();
        BIO_METHOD* m = t.BIO_meth_new(t.BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "netvane socket");
        if (m) {
            t.BIO_meth_set_write(m, socketEndWrite);
            t.BIO_meth_set_read(m, socketEndRead);
            t.BIO_meth_set_ctrl(m, socketEndControl);
            t.BIO_meth_set_create(m, socketEndCreate);
        }
        return m;
    }();
    return method;
}

std::string openSSLReason(unsigned long code) {
    const char* reason = tls().ERR_reason_error_string(code);
    return reason ? reason : "unknown error";
}

struct SSLFree {
    void operator()(SSL* ssl) const { tls().SSL_free(ssl); }
};

class TLSStream final : public ByteStream {
public:
    TLSStream(UniqueFd socket, AttemptWaiter waiter, const std::string& host)
        : socket_(std::move(socket)), waiter_(std::move(waiter)), host_(host) {
        end_.fd = socket_.get();
    }

    Status setUp(SSL_CTX* context) {
        ssl_.reset(t_.SSL_new(context));
        BIO* bio = ssl_ ? t_.BIO_new(socketEndMethod()) : nullptr;
        if (!bio) return failure("The secure connection could not be set up");
        t_.BIO_set_data(bio, &end_);
        t_.SSL_set_bio(ssl_.get(), bio, bio);
        if (PublicIPService::isIPAddress(host_)) {
            // Addresses are checked against the certificate's IP entries and never sent as SNI.
            if (t_.X509_VERIFY_PARAM_set1_ip_asc(t_.SSL_get0_param(ssl_.get()), host_.c_str()) != 1) {
                return failure("The secure connection could not be set up");
            }
        } else if (t_.SSL_ctrl(ssl_.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                               const_cast<char*>(host_.c_str())) != 1 ||
                   t_.SSL_set1_host(ssl_.get(), host_.c_str()) != 1) {
            return failure("The secure connection could not be set up");
        }
        t_.SSL_set_connect_state(ssl_.get());
        return {};
    }

    Status handshake() {
        for (;;) {
            t_.ERR_clear_error();
            errno = 0;
            const int result = t_.SSL_do_handshake(ssl_.get());
            if (result == 1) return {};
            if (auto waited = waitFor(result); !waited) return waited;
        }
    }

    Status sendAll(std::span<const std::uint8_t> bytes) override {
        while (!bytes.empty()) {
            if (auto live = waiter_.check(); !live) return live;
            t_.ERR_clear_error();
            errno = 0;
            std::size_t written = 0;
            const int result = t_.SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &written);
            if (result == 1) {
                bytes = bytes.subspan(written);
            } else if (auto waited = waitFor(result); !waited) {
                return waited;
            }
        }
        return {};
    }

    Result<std::size_t> receive(std::span<std::uint8_t> buffer) override {
        // Records already decrypted are returned without touching the socket,
        // so the limits are checked here as well as in the waits.
        if (auto live = waiter_.check(); !live) return live.error();
        for (;;) {
            t_.ERR_clear_error();
            errno = 0;
            std::size_t read = 0;
            const int result = t_.SSL_read_ex(ssl_.get(), buffer.data(), buffer.size(), &read);
            if (result == 1) return read;
            const int reason = t_.SSL_get_error(ssl_.get(), result);
            if (reason == SSL_ERROR_ZERO_RETURN) return std::size_t{0};
            if (reason == SSL_ERROR_SSL &&
                ERR_GET_REASON(t_.ERR_peek_last_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
                return closedWithoutNotifyError();
            }
            if (auto waited = waitFor(result); !waited) return waited.error();
        }
    }

private:
    // Waits for what the TLS layer asked for, or turns its failure into an Error.
    Status waitFor(int result) {
        const int reason = t_.SSL_get_error(ssl_.get(), result);
        if (reason == SSL_ERROR_WANT_READ) return waiter_.wait(socket_.get(), POLLIN);
        if (reason == SSL_ERROR_WANT_WRITE) return waiter_.wait(socket_.get(), POLLOUT);
        const long verification = t_.SSL_get_verify_result(ssl_.get());
        if (verification != X509_V_OK) {
            return Error{kTLSErrorDomain, verification,
                         std::string("The server's certificate isn't valid: ") +
                             t_.X509_verify_cert_error_string(verification)};
        }
        if (reason == SSL_ERROR_SYSCALL && errno != 0) return posixError(errno);
        if (const unsigned long code = t_.ERR_peek_last_error(); code != 0) {
            return Error{kTLSErrorDomain, static_cast<std::int64_t>(ERR_GET_REASON(code)),
                         "The secure connection failed: " + openSSLReason(code)};
        }
        return failure("The secure connection failed");
    }

    static Error failure(std::string message) { return Error{kTLSErrorDomain, 0, std::move(message)}; }

    const TLSLibrary& t_ = tls();
    UniqueFd socket_;
    AttemptWaiter waiter_;
    std::string host_;
    SocketEnd end_;
    std::unique_ptr<SSL, SSLFree> ssl_;
};

}  // namespace

Result<ssl_ctx_st*> makeTLSContext() {
    auto library = tlsLibrary();
    if (!library) return library.error();
    const TLSLibrary& t = **library;
    SSL_CTX* context = t.SSL_CTX_new(t.TLS_client_method());
    if (!context) return Error{kTLSErrorDomain, 0, "The secure connection could not be set up"};
    t.SSL_CTX_ctrl(context, SSL_CTRL_SET_MIN_PROTO_VERSION, TLS1_2_VERSION, nullptr);
    t.SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    // No SSL_OP_IGNORE_UNEXPECTED_EOF: a bare TCP close must reach the
    // exchange as closedWithoutNotifyError, never as the end of the answer,
    // so that an answer cut short on the way is caught.
    if (t.SSL_CTX_set_default_verify_paths(context) != 1) {
        t.SSL_CTX_free(context);
        return Error{kTLSErrorDomain, 0, "The system's trusted certificates could not be loaded"};
    }
    return context;
}

// Contexts exist only once the library is loaded.
void freeTLSContext(ssl_ctx_st* context) {
    if (context) tls().SSL_CTX_free(context);
}

Result<std::unique_ptr<ByteStream>> startTLS(UniqueFd socket, AttemptWaiter waiter, ssl_ctx_st* context,
                                             const std::string& host) {
    auto stream = std::make_unique<TLSStream>(std::move(socket), std::move(waiter), host);
    if (auto ready = stream->setUp(context); !ready) return ready.error();
    if (auto shaken = stream->handshake(); !shaken) return shaken.error();
    return std::unique_ptr<ByteStream>(std::move(stream));
}

}  // namespace netvane
