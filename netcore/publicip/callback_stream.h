// A byte stream over a connection whose operations complete in callbacks on
// the connection's own queue, as the platform's connection objects do.
//
// Each operation of the stream starts one operation of the connection and
// waits for its callback with the attempt's deadline and cancellation; when
// those win, the connection is cancelled and the error returned. Callbacks
// that arrive after their operation was given up (or after the stream is
// gone) find nobody waiting and are dropped, so a connection's callbacks may
// run at any time on any thread. Destroying the stream cancels the
// connection.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "netcore/publicip/attempt_waiter.h"
#include "netcore/publicip/byte_stream.h"
#include "support/result.h"

namespace netvane {

class CallbackConnection {
public:
    struct Received {
        std::vector<std::uint8_t> data;
        bool complete = false;  // the peer has finished sending
        // The receive also ended in this error. The data is handed out
        // first: whether an answer was whole may hang on its last bytes.
        std::optional<Error> failure;
    };
    using Done = std::function<void(Status)>;
    using ReceiveDone = std::function<void(Result<Received>)>;

    virtual ~CallbackConnection() = default;
    // `ready` is called with success once the connection is ready, or with
    // why it will never be; only its first call counts.
    virtual void start(Done ready) = 0;
    // The whole buffer, as one complete message.
    virtual void send(std::vector<std::uint8_t> bytes, Done done) = 0;
    // At least 1 and at most `maximum` bytes, the end of the stream, or an
    // error (with the bytes that came with it, if any).
    virtual void receive(std::size_t maximum, ReceiveDone done) = 0;
    // Ends the connection; pending callbacks may still run afterwards.
    virtual void cancel() = 0;
};

// Starts `connection` and waits until it is ready; the timeout, which also
// bounds every later call on the stream, starts now.
Result<std::unique_ptr<ByteStream>> openCallbackStream(std::shared_ptr<CallbackConnection> connection,
                                                       std::chrono::milliseconds timeout,
                                                       const Cancellation* cancellation);

// What a connection's error becomes, by the kind of error the platform
// reports: a POSIX error keeps its errno; name resolution and TLS errors keep
// their codes under their own domains, except the TLS status of a peer that
// closed without close_notify, which is closedWithoutNotifyError.
enum class ConnectionErrorKind { posix, dns, tls, other };
Error connectionError(ConnectionErrorKind kind, int code);

// IMPORTANT: the platform's TLS status for a close without close_notify;
// darwin/network_stream.cpp checks it against the system's header.
inline constexpr int kTLSStatusClosedWithoutNotify = -9816;

inline constexpr const char* kDNSErrorDomain = "kDNSServiceErrorDomain";
inline constexpr const char* kOSStatusErrorDomain = "NSOSStatusErrorDomain";
inline constexpr const char* kConnectionErrorDomain = "NetCore.Connection";

}  // namespace netvane
