#include "netcore/publicip/linux/byte_stream.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cstring>
#include <system_error>
#include <thread>

#include "netcore/publicip/attempt_waiter.h"
#include "netcore/publicip/linux/resolver_threads.h"
#include "netcore/publicip/linux/tls_stream.h"
#include "netcore/publicip/public_ip.h"

namespace netvane {
namespace {

int familyOf(IPVersion version) { return version == IPVersion::v4 ? AF_INET : AF_INET6; }

Error addressInfoError(int code) {
    if (code == EAI_SYSTEM) return posixError(errno);
    return Error{kAddressInfoErrorDomain, code, ::gai_strerror(code)};
}

class PlainStream final : public ByteStream {
public:
    PlainStream(UniqueFd socket, AttemptWaiter waiter) : socket_(std::move(socket)), waiter_(std::move(waiter)) {}

    Status sendAll(std::span<const std::uint8_t> bytes) override {
        while (!bytes.empty()) {
            if (auto ready = waiter_.wait(socket_.get(), POLLOUT); !ready) return ready;
            const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent < 0) {
                if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
                return posixError(errno);
            }
            bytes = bytes.subspan(static_cast<std::size_t>(sent));
        }
        return {};
    }

    Result<std::size_t> receive(std::span<std::uint8_t> buffer) override {
        for (;;) {
            if (auto ready = waiter_.wait(socket_.get(), POLLIN); !ready) return ready.error();
            const ssize_t received = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
            if (received >= 0) return static_cast<std::size_t>(received);
            if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return posixError(errno);
        }
    }

private:
    UniqueFd socket_;
    AttemptWaiter waiter_;
};

// The resolver's answer, shared with its thread, which may outlive the attempt.
struct PendingResolution {
    Mutex mutex;
    std::optional<Result<std::vector<SocketAddress>>> answer NV_GUARDED_BY(mutex);
    UniqueFd done{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};
};

Result<std::vector<SocketAddress>> resolve(const AddressResolver& resolver, const std::string& host,
                                           std::uint16_t port, IPVersion version, const AttemptWaiter& waiter) {
    auto pending = std::make_shared<PendingResolution>();
    if (!pending->done) return posixError(errno, "eventfd");
    const bool started = runOnResolverThread([pending, resolver, host, port, version] {
        auto answer = resolver(host, port, version);
        MutexLock lock(pending->mutex);
        pending->answer = std::move(answer);
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(pending->done.get(), &one, sizeof one);
    });
    if (!started) return posixError(EAGAIN, "resolver thread");
    for (;;) {
        if (auto ready = waiter.wait(pending->done.get(), POLLIN); !ready) return ready.error();
        MutexLock lock(pending->mutex);
        if (pending->answer) return std::move(*pending->answer);
    }
}

Result<UniqueFd> connectTo(const SocketAddress& address, const AttemptWaiter& waiter) {
    const int family = address.storage.ss_family;
    UniqueFd socket(::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
    if (!socket) return posixError(errno);
    if (family == AF_INET6) {
        // A mapped IPv4 address must not carry an IPv6 attempt over IPv4.
        const int on = 1;
        ::setsockopt(socket.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address.storage), address.length) == 0) {
        return socket;
    }
    if (errno != EINPROGRESS) return posixError(errno);
    if (auto ready = waiter.wait(socket.get(), POLLOUT); !ready) return ready.error();
    int failure = 0;
    socklen_t length = sizeof failure;
    if (::getsockopt(socket.get(), SOL_SOCKET, SO_ERROR, &failure, &length) != 0) return posixError(errno);
    if (failure != 0) return posixError(failure);
    return socket;
}

bool isLimitError(const Error& error) { return error == timedOutError() || error == cancelledError(); }

}  // namespace

struct SocketStreamConnector::TLSBuild {
    UniqueFd done{::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)};  // readable once `result` is set
    Mutex mutex;
    std::optional<Result<ssl_ctx_st*>> result NV_GUARDED_BY(mutex);

    void run() {
        auto context = makeTLSContext();
        {
            MutexLock lock(mutex);
            result = std::move(context);
        }
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = ::write(done.get(), &one, sizeof one);
    }

    bool failed() {
        MutexLock lock(mutex);
        return result && !result->ok();
    }

    Result<ssl_ctx_st*> await(const AttemptWaiter& waiter) {
        for (;;) {
            {
                MutexLock lock(mutex);
                if (result) return *result;
            }
            if (auto ready = waiter.wait(done.get(), POLLIN); !ready) return ready.error();
        }
    }
};

std::optional<SocketAddress> literalAddress(const std::string& text, std::uint16_t port, IPVersion version) {
    SocketAddress address;
    if (version == IPVersion::v4) {
        auto& v4 = reinterpret_cast<sockaddr_in&>(address.storage);
        if (::inet_pton(AF_INET, text.c_str(), &v4.sin_addr) != 1) return std::nullopt;
        v4.sin_family = AF_INET;
        v4.sin_port = htons(port);
        address.length = sizeof(sockaddr_in);
    } else {
        auto& v6 = reinterpret_cast<sockaddr_in6&>(address.storage);
        if (::inet_pton(AF_INET6, text.c_str(), &v6.sin6_addr) != 1) return std::nullopt;
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(port);
        address.length = sizeof(sockaddr_in6);
    }
    return address;
}

Result<std::vector<SocketAddress>> resolveWithSystem(const std::string& host, std::uint16_t port, IPVersion version) {
    addrinfo hints{};
    hints.ai_family = familyOf(version);
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = IPPROTO_TCP;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* list = nullptr;
    const int status = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
    if (status != 0) return addressInfoError(status);
    std::vector<SocketAddress> addresses;
    for (const addrinfo* entry = list; entry; entry = entry->ai_next) {
        if (entry->ai_family != hints.ai_family || entry->ai_addrlen > sizeof(sockaddr_storage)) continue;
        SocketAddress address;
        std::memcpy(&address.storage, entry->ai_addr, entry->ai_addrlen);
        address.length = entry->ai_addrlen;
        addresses.push_back(address);
    }
    ::freeaddrinfo(list);
    if (addresses.empty()) return addressInfoError(EAI_NONAME);
    return addresses;
}

SocketStreamConnector::SocketStreamConnector(AddressResolver resolver) : resolver_(std::move(resolver)) {}

SocketStreamConnector::~SocketStreamConnector() {
    MutexLock lock(tlsMutex_);
    if (tlsBuilder_.joinable()) {
        // A build still running is waited for: the process may be exiting,
        // and the TLS library must not be torn down under it. One that
        // outlasts an attempt's budget (a trust store that never answers)
        // is left to finish on its own.
        pollfd done{tlsBuild_->done.get(), POLLIN, 0};
        const auto budget = static_cast<int>(PublicIPService::kAttemptTimeout.count());
        while (::poll(&done, 1, budget) < 0 && errno == EINTR) {
        }
        if (done.revents == 0) {
            tlsBuilder_.detach();
            return;
        }
        tlsBuilder_.join();
    }
    if (!tlsBuild_) return;
    MutexLock built(tlsBuild_->mutex);
    if (tlsBuild_->result && tlsBuild_->result->ok()) freeTLSContext(**tlsBuild_->result);
}

std::shared_ptr<SocketStreamConnector::TLSBuild> SocketStreamConnector::prepareTLS() {
    MutexLock lock(tlsMutex_);
    if (tlsBuild_ && !tlsBuild_->failed()) return tlsBuild_;
    // A failed build's thread has set its result, so it is ending anyway.
    if (tlsBuilder_.joinable()) tlsBuilder_.join();
    auto build = std::make_shared<TLSBuild>();
    tlsBuild_ = build;
    if (!build->done) {
        build->run();  // without a descriptor to wait on, the caller builds
        return build;
    }
    try {
        tlsBuilder_ = std::thread([build] { build->run(); });
    } catch (const std::system_error&) {
        build->run();  // no thread to spare: the caller builds
    }
    return build;
}

Result<std::unique_ptr<ByteStream>> SocketStreamConnector::open(const StreamTarget& target,
                                                                std::chrono::milliseconds timeout,
                                                                const Cancellation* cancellation) {
    auto waiter = AttemptWaiter::start(timeout, cancellation);
    if (!waiter) return waiter.error();
    if (auto live = waiter->check(); !live) return live.error();
    // Started first, so that building the context overlaps resolving and connecting.
    const std::shared_ptr<TLSBuild> tls = target.tls ? prepareTLS() : nullptr;

    const IPVersion other = target.version == IPVersion::v4 ? IPVersion::v6 : IPVersion::v4;
    Result<std::vector<SocketAddress>> addresses = std::vector<SocketAddress>{};
    if (auto literal = literalAddress(target.host, target.port, target.version)) {
        addresses = std::vector<SocketAddress>{*literal};
    } else if (literalAddress(target.host, target.port, other)) {
        return addressInfoError(EAI_ADDRFAMILY);
    } else {
        addresses = resolve(resolver_, target.host, target.port, target.version, *waiter);
    }
    if (!addresses) return addresses.error();

    // Each address of the family in turn, as long as the budget lasts.
    Result<UniqueFd> socket = addressInfoError(EAI_NONAME);
    for (const SocketAddress& address : *addresses) {
        if (address.storage.ss_family != familyOf(target.version)) continue;
        socket = connectTo(address, *waiter);
        if (socket || isLimitError(socket.error())) break;
    }
    if (!socket) return socket.error();

    if (!tls) return std::unique_ptr<ByteStream>(new PlainStream(std::move(*socket), std::move(*waiter)));
    auto context = tls->await(*waiter);
    if (!context) return context.error();
    return startTLS(std::move(*socket), std::move(*waiter), *context, target.host);
}

StreamConnector& systemStreamConnector() {
    static SocketStreamConnector connector;
    return connector;
}

}  // namespace netvane
