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
    using TimePoint = std::chrono::steady_clock::time_point;

    Connection(UniqueFd fd, PeerCredentials peer, std::chrono::milliseconds replyDeadline)
        : fd_(std::move(fd)), peer_(std::move(peer)), replyDeadline_(replyDeadline) {}

    int fd() const { return fd_.get(); }
    const PeerCredentials& peer() const { return peer_; }

    bool write(const std::vector<std::uint8_t>& frame) {
        std::lock_guard lock(writeMutex_);
        if (closed_) return false;
        const auto deadline = std::chrono::steady_clock::now() + replyDeadline_;
        if (!writeFully(fd_.get(), frame.data(), frame.size(), deadline).ok()) {
            closeLocked();
            return false;
        }
        return true;
    }

    void close() {
        std::lock_guard lock(writeMutex_);
        closeLocked();
    }

    // Calls handed to the session whose reply has been neither sent nor
    // dropped; while there are any, the connection is not idle.
    void callStarted() {
        std::lock_guard lock(idleMutex_);
        ++outstanding_;
    }
    void callEnded() {
        std::lock_guard lock(idleMutex_);
        if (--outstanding_ == 0) idleSince_ = std::chrono::steady_clock::now();
    }
    std::optional<TimePoint> idleSince() {
        std::lock_guard lock(idleMutex_);
        if (outstanding_ > 0) return std::nullopt;
        return idleSince_;
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
    const std::chrono::milliseconds replyDeadline_;
    std::mutex writeMutex_;
    bool closed_ = false;
    std::mutex idleMutex_;
    std::size_t outstanding_ = 0;
    TimePoint idleSince_ = std::chrono::steady_clock::now();
};

// One per call: its end, sent or dropped uncalled, ends the call.
struct ReplySender::State {
    State(std::shared_ptr<Connection> c, std::uint64_t s) : connection(std::move(c)), seq(s) {
        connection->callStarted();
    }
    ~State() { connection->callEnded(); }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    std::shared_ptr<Connection> connection;
    std::uint64_t seq;
    std::atomic<bool> sent{false};
};

ReplySender::ReplySender(std::shared_ptr<Connection> connection, std::uint64_t seq)
    : state_(std::make_shared<State>(std::move(connection), seq)) {}

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

void ReplySender::closeConnection() const {
    if (state_->sent.exchange(true)) return;
    state_->connection->close();
}

namespace {

std::shared_ptr<ReadBudget> processReadBudget() {
    static const auto budget = std::make_shared<ReadBudget>(kDefaultReadBudgetBytes);
    return budget;
}

}  // namespace

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
    // A socket file's mode cannot be set through its descriptor. By name is
    // safe only because nobody else may write in the directory (the daemon
    // checks it at start); make sure the name still holds our socket.
    struct stat bound {};
    if (::lstat(path.c_str(), &bound) != 0 || !S_ISSOCK(bound.st_mode) || bound.st_uid != ::geteuid()) {
        return posixError(EPERM, "socket " + path + " was replaced after bind");
    }
    if (::chmod(path.c_str(), 0666) != 0) return posixError(errno, "chmod " + path);
    if (::listen(fd.get(), SOMAXCONN) != 0) return posixError(errno, "listen " + path);
    return fd;
}

Server::Server(UniqueFd listener, ServiceDefinition service, ServerLimits limits)
    : listener_(std::move(listener)), service_(std::move(service)), limits_(std::move(limits)) {
    if (!limits_.readBudget) limits_.readBudget = processReadBudget();
}

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
        // A peer we cannot pin to its process cannot be authorised later;
        // refusing it here keeps every session's identity whole.
        auto peer = peerCredentials(fd.get());
        if (!peer) continue;

        std::lock_guard lock(mutex_);
        if (stopping_) return;
        if (!admits(peer->uid)) continue;  // closes fd
        const uid_t uid = peer->uid;
        auto connection = std::make_shared<Connection>(std::move(fd), std::move(*peer), limits_.replyDeadline);
        std::erase_if(connections_, [](const std::weak_ptr<Connection>& weak) { return weak.expired(); });
        try {
            std::thread([this, connection] { serve(connection); }).detach();
        } catch (const std::system_error&) {
            continue;  // no thread to be had: this peer is closed, the next may fare better
        }
        connections_.push_back(connection);
        ++active_;
        ++perUid_[uid];
    }
}

bool Server::admits(uid_t uid) const {
    if (active_ >= limits_.maxConnections) return false;
    if (uid == 0) return true;
    const auto it = perUid_.find(uid);
    if (it != perUid_.end() && it->second >= limits_.maxConnectionsPerUid) return false;
    std::size_t others = active_;
    if (const auto root = perUid_.find(0); root != perUid_.end()) others -= root->second;
    return others + limits_.reservedForRoot < limits_.maxConnections;
}

void Server::serve(std::shared_ptr<Connection> connection) {
    std::shared_ptr<Session> session = service_.makeSession(connection->peer());
    {
        // The reader gives its share of the read budget back when it goes,
        // which must happen before this connection stops counting: once the
        // count drains, stop() returns and the budget may be gone.
        FrameReader reader(connection->fd(), limits_.readBudget.get());
        const ReadDeadlines deadlines{limits_.idleDeadline, limits_.frameDeadline,
                                      [&connection] { return connection->idleSince(); }};
        while (session) {
            auto body = reader.next(deadlines);
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
    }
    connection->close();
    if (session) session->invalidated();
    session.reset();

    std::lock_guard lock(mutex_);
    --active_;
    if (auto it = perUid_.find(connection->peer().uid); it != perUid_.end() && --it->second == 0) perUid_.erase(it);
    drained_.notify_all();
}

}  // namespace netvane::ipc
