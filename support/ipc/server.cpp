#include "support/ipc/server.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "support/ipc/stream.h"

namespace netvane::ipc {

// The shared end of one connection: readers, repliers and stop() meet here.
class Connection {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    Connection(UniqueFd fd, PeerCredentials peer, std::chrono::milliseconds replyDeadline,
               std::shared_ptr<Session> session)
        : fd_(std::move(fd)), peer_(std::move(peer)), replyDeadline_(replyDeadline), session_(std::move(session)) {}

    int fd() const { return fd_.get(); }
    const PeerCredentials& peer() const { return peer_; }
    const std::shared_ptr<Session>& session() const { return session_; }
    std::atomic<bool>& midFrame() { return midFrame_; }

    bool write(const std::vector<std::uint8_t>& frame) {
        MutexLock lock(writeMutex_);
        if (closed_) return false;
        const auto deadline = std::chrono::steady_clock::now() + replyDeadline_;
        if (!writeFully(fd_.get(), frame.data(), frame.size(), deadline).ok()) {
            closeLocked();
            return false;
        }
        return true;
    }

    void close() {
        {
            MutexLock lock(writeMutex_);
            closeLocked();
        }
        // A reader waiting for room must see it.
        MutexLock lock(callsMutex_);
        closing_ = true;
        roomChanged_.notify_all();
    }

    // Calls handed to the session whose reply has been neither sent nor
    // dropped; while there are any, the connection is not idle.
    void callStarted() {
        MutexLock lock(callsMutex_);
        ++outstanding_;
    }
    void callEnded() {
        MutexLock lock(callsMutex_);
        if (--outstanding_ == 0) idleSince_ = std::chrono::steady_clock::now();
        roomChanged_.notify_all();
    }
    // Blocks while `limit` calls are outstanding; false once the connection closes.
    bool waitForRoom(std::size_t limit) {
        MutexLock lock(callsMutex_);
        while (outstanding_ >= limit && !closing_) lock.wait(roomChanged_);
        return !closing_;
    }

    std::optional<TimePoint> idleSince() {
        if (session_->pinned()) return std::nullopt;
        MutexLock lock(callsMutex_);
        if (outstanding_ > 0) return std::nullopt;
        return idleSince_;
    }
    HoldState hold() {
        if (session_->pinned()) return HoldState{HoldState::pinned};
        MutexLock lock(callsMutex_);
        if (outstanding_ > 0 || midFrame_.load(std::memory_order_relaxed)) return HoldState{HoldState::busy};
        return HoldState{HoldState::idle, idleSince_};
    }

    // Displaced: calls already sent are still read and answered, none after
    // them (the peer's next write fails), and the connection goes once
    // every call in hand is answered.
    void drain() {
        draining_.store(true, std::memory_order_relaxed);
        ::shutdown(fd_.get(), SHUT_RD);
    }
    bool draining() const { return draining_.load(std::memory_order_relaxed); }
    // False when `limit` passed first.
    bool waitForAnswers(std::chrono::milliseconds limit) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        MutexLock lock(callsMutex_);
        while (outstanding_ > 0 && !closing_) {
            if (!lock.waitUntil(roomChanged_, deadline)) return outstanding_ == 0;
        }
        return true;
    }

private:
    // shutdown wakes the reader; the descriptor itself is closed only when the
    // last holder lets go, so a late reply can never write to a reused fd.
    void closeLocked() NV_REQUIRES(writeMutex_) {
        if (!closed_) ::shutdown(fd_.get(), SHUT_RDWR);
        closed_ = true;
    }

    UniqueFd fd_;
    PeerCredentials peer_;
    const std::chrono::milliseconds replyDeadline_;
    const std::shared_ptr<Session> session_;
    std::atomic<bool> midFrame_{false};
    std::atomic<bool> draining_{false};
    Mutex writeMutex_;
    bool closed_ NV_GUARDED_BY(writeMutex_) = false;
    Mutex callsMutex_;
    std::condition_variable roomChanged_;
    std::size_t outstanding_ NV_GUARDED_BY(callsMutex_) = 0;
    bool closing_ NV_GUARDED_BY(callsMutex_) = false;
    TimePoint idleSince_ NV_GUARDED_BY(callsMutex_) = std::chrono::steady_clock::now();
};

// One per call: its end, sent or dropped uncalled, ends the call.
struct ReplySender::State {
    State(std::shared_ptr<Connection> c, std::uint64_t s) : connection(std::move(c)), seq(s) {
        connection->callStarted();
    }
    ~State() {
        if (!sent.load()) {
            // Dropped unanswered (a waiter whose request went): say so, rather
            // than leave the peer waiting for a reply that will never come.
            if (auto frame = encodeReply(Reply{seq, {}, true})) connection->write(*frame);
        }
        connection->callEnded();
    }
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
    : listener_(std::move(listener)),
      service_(std::move(service)),
      limits_(std::move(limits)),
      table_(TableLimits{limits_.maxConnections, limits_.reservedForRoot, limits_.drainingAllowance}) {
    if (!limits_.readBudget) limits_.readBudget = processReadBudget();
    if (limits_.maxOutstandingCalls == 0) limits_.maxOutstandingCalls = 1;
}

Server::~Server() { stop(); }

void Server::start() { acceptThread_ = std::thread([this] { acceptLoop(); }); }

void Server::stop() {
    std::vector<std::thread> threads;
    {
        MutexLock lock(mutex_);
        if (stopping_) return;
        stopping_ = true;
        ::shutdown(listener_.get(), SHUT_RDWR);  // wakes accept()
        for (auto& [id, served] : served_) {
            if (served.connection) served.connection->close();
        }
    }
    if (acceptThread_.joinable()) acceptThread_.join();
    {
        // No thread is started once stopping_ is set and the accept thread is gone.
        MutexLock lock(mutex_);
        for (auto& [id, served] : served_) threads.push_back(std::move(served.thread));
    }
    for (std::thread& thread : threads) thread.join();
}

std::size_t Server::connectionCount() const {
    MutexLock lock(mutex_);
    return active_;
}

void Server::log(std::uint32_t uid, const std::string& line) const {
    if (service_.log) service_.log(uid, line);
}

void Server::joinFinished() {
    std::vector<std::thread> finished;
    {
        MutexLock lock(mutex_);
        for (auto it = served_.begin(); it != served_.end();) {
            if (!it->second.finished) {
                ++it;
                continue;
            }
            finished.push_back(std::move(it->second.thread));
            it = served_.erase(it);
        }
    }
    for (std::thread& thread : finished) thread.join();  // each is past its last use of the server
}

void Server::acceptLoop() {
    for (;;) {
        joinFinished();
        UniqueFd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!fd) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            {
                MutexLock lock(mutex_);
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
        {
            MutexLock lock(mutex_);
            if (stopping_) return;
        }
        admit(std::move(fd), std::move(*peer));
    }
}

void Server::admit(UniqueFd fd, PeerCredentials peer) {
    const auto uid = static_cast<std::uint32_t>(peer.uid);
    std::shared_ptr<Session> session = service_.makeSession(peer);
    auto connection =
        std::make_shared<Connection>(std::move(fd), std::move(peer), limits_.replyDeadline, std::move(session));
    std::shared_ptr<Connection> displaced;
    ConnectionTable::Admission admission;
    {
        MutexLock lock(mutex_);
        if (stopping_) return;
        const ConnectionTable::Id id = nextId_++;
        admission = table_.admit(id, uid, [connection] { return connection->hold(); });
        if (!admission.admitted) {
            lock.unlock();
            log(uid, "refused a connection of uid " + std::to_string(uid) + ": " + admission.reason);
            return;  // closes it
        }
        if (admission.displaced) displaced = served_.at(*admission.displaced).connection;
        try {
            served_[id] = Served{connection, std::thread([this, id, connection] { serve(id, connection); })};
        } catch (const std::system_error&) {
            // No thread to be had: this peer is closed, the next may fare better.
            served_.erase(id);
            table_.remove(id);
            return;
        }
        ++active_;
    }
    if (!displaced) return;
    displaced->drain();
    log(uid, "uid " + std::to_string(uid) + " " + admission.reason + " (uid " +
                 std::to_string(displaced->peer().uid) + ")");
}

void Server::serve(ConnectionTable::Id id, const std::shared_ptr<Connection>& connection) {
    const std::shared_ptr<Session>& session = connection->session();
    {
        // The reader gives its share of the read budget back when it goes,
        // which must happen before this connection stops counting: once the
        // count drains, stop() returns and the budget may be gone.
        FrameReader reader(connection->fd(), limits_.readBudget.get(), &connection->midFrame());
        const ReadDeadlines deadlines{limits_.idleDeadline, limits_.frameDeadline,
                                      [&connection] { return connection->idleSince(); }};
        while (connection->waitForRoom(limits_.maxOutstandingCalls)) {
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
    if (connection->draining()) connection->waitForAnswers(limits_.idleDeadline);
    connection->close();
    session->invalidated();

    MutexLock lock(mutex_);
    table_.remove(id);
    --active_;
    if (auto it = served_.find(id); it != served_.end()) {
        // Only the thread is left to join; the connection and its descriptor
        // go with this thread's last reference.
        it->second.connection.reset();
        it->second.finished = true;
    }
}

}  // namespace netvane::ipc
