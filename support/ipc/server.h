// The IPC server: one listening Unix-domain stream socket per service, one
// session per connection.
//
// Each connection gets its own thread, which reads frames and hands each
// checked call to its session, one at a time (calls on different connections
// run concurrently). A session may answer later, from any thread, through
// the ReplySender it was given. A malformed frame (oversize, truncated, not a
// plist, unknown selector, wrong arguments) closes only that connection.
// When a connection ends for any reason its session's `invalidated` runs
// exactly once, on the connection's thread, and replies sent afterwards are
// dropped. The number of connections is bounded; extra ones are closed at once.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/ipc/frame.h"
#include "support/ipc/protocol_description.h"
#include "support/result.h"
#include "support/unique_fd.h"

namespace netvane::ipc {

struct PeerCredentials {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    std::uint64_t startTime = 0;  // the kernel's start time of pid, to tell a reused pid apart

    bool operator==(const PeerCredentials&) const = default;
};

class Connection;

// Answers one call. Copyable; the first `send` wins, later ones are ignored.
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
};

struct ServiceDefinition {
    const ProtocolDescription* protocol = nullptr;
    // The code-signing requirement a peer must meet. Linux has no code
    // signatures: the text is kept for the log, and peers are not checked.
    std::string requirement;
    std::function<std::shared_ptr<Session>(const PeerCredentials&)> makeSession;
};

struct ServerLimits {
    // Each connection holds a thread and up to one frame of buffer.
    std::size_t maxConnections = 256;
    // A peer that stops reading its replies is disconnected after this long.
    std::chrono::milliseconds sendTimeout{5000};
};

// Creates a listening socket at `path`, replacing a stale socket file there;
// the socket is world-connectable: sessions decide what each peer may do.
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
    // Closes the listener and every connection, waits for their threads.
    void stop();
    std::size_t connectionCount() const;

private:
    void acceptLoop();
    void serve(std::shared_ptr<Connection> connection);

    UniqueFd listener_;
    ServiceDefinition service_;
    ServerLimits limits_;
    std::thread acceptThread_;
    mutable std::mutex mutex_;
    std::condition_variable drained_;
    std::vector<std::weak_ptr<Connection>> connections_;
    std::size_t active_ = 0;
    bool stopping_ = false;
};

}  // namespace netvane::ipc
