// The byte-stream seam of the public-IP lookup: one TCP connection, optionally
// under TLS, that may only use the requested IP family.
//
// A connector opens a stream for one attempt. Every blocking wait of the
// attempt (name resolution, connect, handshake, send, receive) ends when the
// data is ready, when the attempt's timeout has run out (`timedOutError`) or
// when its cancellation fires (`cancelledError`), whichever comes first. A
// connector may be shared by concurrent attempts; a stream belongs to one.
//
// A TLS stream ends cleanly only with the peer's close_notify. A peer that
// closes the connection without it makes the receive that meets the close
// fail with `closedWithoutNotifyError`, after every byte that arrived before
// it was returned: the stream cannot tell a whole answer from one cut short
// on the way, so the reader decides from what it received.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "support/result.h"
#include "support/unique_fd.h"

namespace netvane {

enum class IPVersion { v4, v6 };

// Wakes every wait of the attempts that share it, at once and for good.
// Thread-safe; cancelling twice is harmless.
class Cancellation {
public:
    Cancellation();
    Cancellation(const Cancellation&) = delete;
    Cancellation& operator=(const Cancellation&) = delete;

    void cancel();
    bool isCancelled() const { return cancelled_.load(std::memory_order_acquire); }
    // Readable once cancelled; waits poll it beside their own descriptor.
    int fd() const { return readEnd_.get(); }

private:
    UniqueFd readEnd_;
    UniqueFd writeEnd_;
    std::atomic<bool> cancelled_{false};
};

struct StreamTarget {
    std::string host;  // a name to resolve, or an address literal without brackets
    std::uint16_t port = 0;
    IPVersion version = IPVersion::v4;
    bool tls = false;  // certificate and host name checked against the system's trust store

    bool operator==(const StreamTarget&) const = default;
};

class ByteStream {
public:
    virtual ~ByteStream() = default;
    virtual Status sendAll(std::span<const std::uint8_t> bytes) = 0;
    // Waits for at least one byte and returns how many were stored in
    // `buffer`; 0 when the peer has closed the stream (with close_notify,
    // under TLS).
    virtual Result<std::size_t> receive(std::span<std::uint8_t> buffer) = 0;
};

class StreamConnector {
public:
    virtual ~StreamConnector() = default;
    // The attempt's timeout starts now and also bounds every later call on
    // the stream. `cancellation` may be null; if not, it must outlive the stream.
    virtual Result<std::unique_ptr<ByteStream>> open(const StreamTarget& target, std::chrono::milliseconds timeout,
                                                     const Cancellation* cancellation) = 0;
};

// The operating system's sockets and TLS; one shared instance per process.
StreamConnector& systemStreamConnector();

// The texts the user sees when an attempt runs out of time or is cancelled.
Error timedOutError();
Error cancelledError();
// A TLS peer closed the connection without close_notify.
Error closedWithoutNotifyError();

inline constexpr const char* kURLErrorDomain = "NSURLErrorDomain";
inline constexpr std::int64_t kURLErrorTimedOut = -1001;
inline constexpr const char* kTLSErrorDomain = "NetCore.TLS";
// The code of closedWithoutNotifyError on every platform; IMPORTANT: it
// equals the Linux TLS library's reason code for the same condition
// (checked in linux/tls_stream.cpp).
inline constexpr std::int64_t kTLSClosedWithoutNotify = 294;

}  // namespace netvane
