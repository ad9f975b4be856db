// The IPC server: one listening Unix-domain stream socket per service, one
// session per connection.
//
// Each connection gets its own thread, which reads frames and hands each
// checked call to its session, one at a time (calls on different connections
// run concurrently). A session may answer later, from any thread, through
// the ReplySender it was given; a reply it drops unanswered is reported to
// the peer as dropped, so nobody waits for an answer that cannot come. A
// malformed frame (oversize, truncated, not a plist, unknown selector, wrong
// arguments) closes only that connection; a well-formed call never does.
// When a served connection ends for any reason its session's `invalidated`
// runs exactly once, on the connection's thread, and replies sent afterwards
// are dropped. stop() joins every thread the server started.
//
// IMPORTANT: every local user can connect, so nothing a peer does may cost us
// without bound or keep others out. The connection table is shared fairly
// (ConnectionTable: a newcomer below its share displaces the heaviest user's
// oldest idle connection, whatever number of uids that user holds; root keeps
// reserved slots). A connection with several calls outstanding is not read
// further until they are answered. A frame must arrive whole within a
// deadline from its first byte, a connection with nothing outstanding (and no
// session reason to stay, such as a pending request) is closed after an idle
// deadline, and a reply must be taken whole within a deadline; frame buffers
// grow only as bytes arrive, and their growth comes from one budget shared by
// every connection. A peer over any of these is disconnected (or, at accept,
// refused) and the others go on. A peer whose process cannot be pinned
// (pidfd, start time) is refused too.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/ipc/connection_table.h"
#include "support/ipc/frame.h"
#include "support/ipc/protocol_description.h"
#include "support/ipc/stream.h"
#include "support/mutex.h"
#include "support/process.h"
#include "support/result.h"
#include "support/unique_fd.h"

namespace netvane::ipc {

struct PeerCredentials {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    std::uint64_t startTime = 0;  // the kernel's start time of pid, to tell a reused pid apart
    // The peer process itself, pinned when the connection was accepted.
    std::shared_ptr<const ProcessHandle> process = nullptr;

    bool operator==(const PeerCredentials&) const = default;
};

class Connection;

// Answers one call. Copyable; the first `send` wins, later ones are ignored.
// When the last copy goes without a send, the peer is told that the call was
// dropped.
class ReplySender {
public:
    ReplySender(std::shared_ptr<Connection> connection, std::uint64_t seq);
    void send(std::vector<ReplySlot> values) const;

private:
    struct State;
    std::shared_ptr<State> state_;
};

class Session {
public:
    virtual ~Session() = default;
    // `args` match `method.arguments` in number and type.
    virtual void handle(const MethodDescription& method, std::vector<Argument> args, ReplySender reply) = 0;
    virtual void invalidated() {}
    // True while the session has a reason to keep its connection with no
    // call outstanding (a pending pairing request): such a connection is
    // neither idle nor ever displaced. Called from the server's threads.
    virtual bool pinned() { return false; }
};

struct ServiceDefinition {
    const ProtocolDescription* protocol = nullptr;
    // The code-signing requirement a peer must meet. Linux has no code
    // signatures: the text is kept for the log, and peers are not checked.
    std::string requirement;
    std::function<std::shared_ptr<Session>(const PeerCredentials&)> makeSession;
    // Where the server says whom it refused or displaced, and why: one line
    // about what the peer of `uid` met. Null: nowhere.
    std::function<void(std::uint32_t uid, const std::string& line)> log;
};

struct ServerLimits {
    // Each connection holds a thread and a small buffer.
    std::size_t maxConnections = 256;
    // Users other than root together leave these free, so an administrator
    // can always get in to look.
    std::size_t reservedForRoot = 16;
    // Displaced connections that finish their calls before they go, over the
    // table; see ConnectionTable.
    std::size_t drainingAllowance = 32;
    // Calls of one connection handed to its session and not yet answered
    // (awaits answered later); past this the connection is not read further,
    // so what a peer can make us hold stays bounded.
    std::size_t maxOutstandingCalls = 4;
    // Our frames are at most a few KiB, written at once: a peer that has
    // begun one has no reason to take longer to finish it.
    std::chrono::milliseconds frameDeadline{10'000};
    // A connection with no call outstanding and no frame under way; our
    // clients connect for a few calls, or wait on a call (not idle).
    std::chrono::milliseconds idleDeadline{120'000};
    // A peer that stops reading its replies is disconnected after this long,
    // however slowly it reads: the writing thread may be another client's.
    std::chrono::milliseconds replyDeadline{5'000};
    // Frame buffers beyond their first piece, all connections together
    // (shared by every server given the same budget). Null: one budget of
    // kDefaultReadBudgetBytes for the whole process.
    std::shared_ptr<ReadBudget> readBudget;
};
// Ordinary calls fit in every reader's first piece and never draw on it; this
// is room for dozens of full-size frames at once, far below what a host can
// spare, and what a flood of announced-but-unsent frames can hold at most.
inline constexpr std::size_t kDefaultReadBudgetBytes = std::size_t{64} << 20;

// Creates a listening socket at `path`, replacing a stale socket file there;
// the socket is world-connectable: sessions decide what each peer may do.
// The directory must be one that only we may write in.
Result<UniqueFd> listenOnPath(const std::string& path);

// The peer of a connected Unix-domain socket.
Result<PeerCredentials> peerCredentials(int fd);

class Server {
public:
    Server(UniqueFd listener, ServiceDefinition service, ServerLimits limits = {});
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    void start();  // accepts on a thread of its own
    // Closes the listener and every connection, and joins every thread.
    void stop();
    std::size_t connectionCount() const;

private:
    struct Served {
        std::shared_ptr<Connection> connection;
        std::thread thread;
        bool finished = false;
    };

    void acceptLoop();
    void admit(UniqueFd fd, PeerCredentials peer);
    void serve(ConnectionTable::Id id, const std::shared_ptr<Connection>& connection);
    void joinFinished();
    void log(std::uint32_t uid, const std::string& line) const;

    UniqueFd listener_;
    ServiceDefinition service_;
    ServerLimits limits_;
    std::thread acceptThread_;
    mutable Mutex mutex_;
    ConnectionTable table_ NV_GUARDED_BY(mutex_);
    std::map<ConnectionTable::Id, Served> served_ NV_GUARDED_BY(mutex_);
    ConnectionTable::Id nextId_ NV_GUARDED_BY(mutex_) = 1;
    std::size_t active_ NV_GUARDED_BY(mutex_) = 0;
    bool stopping_ NV_GUARDED_BY(mutex_) = false;
};

}  // namespace netvane::ipc
