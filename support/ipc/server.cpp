#include "support/ipc/server.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "support/ipc/stream.h"

namespace netvane::ipc {

// The shared end of one connection: readers, repliers and stop() meet here.
class Connection {
public:
    Connection(UniqueFd fd, PeerCredentials peer) : fd_(std::move(fd)), peer_(peer) {}

    int fd() const { return fd_.get(); }
    const PeerCredentials& peer() const { return peer_; }

    bool write(const std::vector<std::uint8_t>& frame) {
        std::lock_guard lock(writeMutex_);
        if (closed_) return false;
        if (!writeFully(fd_.get(), frame.data(), frame.size()).ok()) {
            closeLocked();
            return false;
        }
        return true;
    }

    void close() {
        std::lock_guard lock(writeMutex_);
        closeLocked();
    }

private:
    // shutdown wakes the reader; the descriptor itself is closed only when the
    // last holder lets go, so a late reply can never write to a reused fd.
    void closeLocked() {
        if (!closed_) ::shutdown(fd_.get(), SHUT_RDWR);
        closed_ = true;
    }

    UniqueFd fd_;
    PeerCredentials peer_;
    std::mutex writeMutex_;
    bool closed_ = false;
};

struct ReplySender::State {
    std::shared_ptr<Connection> connection;
    std::uint64_t seq;
    std::atomic<bool> sent{false};
};

ReplySender::ReplySender(std::shared_ptr<Connection> connection, std::uint64_t seq)
    : state_(std::make_shared<State>()) {
    state_->connection = std::move(connection);
    state_->seq = seq;
}

void ReplySender::send(std::vector<ReplySlot> values) const {
    if (state_->sent.exchange(true)) return;
    auto frame = encodeReply(Reply{state_->seq, std::move(values)});
    if (!frame) {
        // A reply we cannot encode is our bug; the peer must not wait for ever.
        state_->connection->close();
        return;
    }
    state_->connection->write(*frame);
}

Result<UniqueFd> listenOnPath(const std::string& path) {
    sockaddr_un address;
    if (!unixSocketAddress(path, address)) return posixError(ENAMETOOLONG, "socket path " + path);
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) return posixError(errno, "socket");
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode)) {
        // Replace only a stale socket: one that still answers belongs to a
        // running server, which must not lose its clients to us.
        UniqueFd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (probe && ::connect(probe.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
            return posixError(EADDRINUSE, "another server listens on " + path);
        }
        ::unlink(path.c_str());
    }
    if (::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        return posixError(errno, "bind " + path);
    }
    if (::chmod(path.c_str(), 0666) != 0) return posixError(errno, "chmod " + path);
    if (::listen(fd.get(), SOMAXCONN) != 0) return posixError(errno, "listen " + path);
    return fd;
}

Server::Server(UniqueFd listener, ServiceDefinition service, ServerLimits limits)
    : listener_(std::move(listener)), service_(std::move(service)), limits_(limits) {}

Server::~Server() { stop(); }

void Server::start() { acceptThread_ = std::thread([this] { acceptLoop(); }); }

void Server::stop() {
    std::unique_lock lock(mutex_);
    if (stopping_) return;
    stopping_ = true;
    ::shutdown(listener_.get(), SHUT_RDWR);  // wakes accept()
    for (auto& weak : connections_) {
        if (auto connection = weak.lock()) connection->close();
    }
    lock.unlock();
    if (acceptThread_.joinable()) acceptThread_.join();
    lock.lock();
    drained_.wait(lock, [this] { return active_ == 0; });
}

std::size_t Server::connectionCount() const {
    std::lock_guard lock(mutex_);
    return active_;
}

void Server::acceptLoop() {
    for (;;) {
        UniqueFd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!fd) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            {
                std::lock_guard lock(mutex_);
                if (stopping_) return;
            }
            // Out of resources or a transient failure: back off rather than
            // spin, and keep accepting; existing peers go on.
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            continue;
        }
        auto peer = peerCredentials(fd.get());
        if (!peer) continue;
        const timeval timeout{static_cast<time_t>(limits_.sendTimeout.count() / 1000),
                              static_cast<suseconds_t>(limits_.sendTimeout.count() % 1000 * 1000)};
        ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);

        std::lock_guard lock(mutex_);
        if (stopping_) return;
        if (active_ >= limits_.maxConnections) continue;  // closes fd
        auto connection = std::make_shared<Connection>(std::move(fd), *peer);
        std::erase_if(connections_, [](const std::weak_ptr<Connection>& weak) { return weak.expired(); });
        try {
            std::thread([this, connection] { serve(connection); }).detach();
        } catch (const std::system_error&) {
            continue;  // no thread to be had: this peer is closed, the next may fare better
        }
        connections_.push_back(connection);
        ++active_;
    }
}

void Server::serve(std::shared_ptr<Connection> connection) {
    std::shared_ptr<Session> session = service_.makeSession(connection->peer());
    FrameReader reader(connection->fd());
    while (session) {
        auto body = reader.next();
        if (!body) break;
        auto call = decodeCall(*body);
        if (!call) break;
        const MethodDescription* method = service_.protocol->find(call->selector);
        if (!method || method->arguments.size() != call->args.size()) break;
        bool argumentsMatch = true;
        for (std::size_t i = 0; i < call->args.size(); ++i) {
            const plist::Value* value = call->args[i] ? &*call->args[i] : nullptr;
            argumentsMatch = argumentsMatch && acceptsValue(method->arguments[i], value);
        }
        if (!argumentsMatch) break;
        session->handle(*method, std::move(call->args), ReplySender(connection, call->seq));
    }
    connection->close();
    if (session) session->invalidated();
    session.reset();

    std::lock_guard lock(mutex_);
    --active_;
    drained_.notify_all();
}

}  // namespace netvane::ipc
