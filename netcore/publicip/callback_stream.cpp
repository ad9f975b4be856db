#include "netcore/publicip/callback_stream.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>

#include "support/descriptors.h"
#include "support/mutex.h"

namespace netvane {
namespace {

// IMPORTANT: one read never asks the connection for more than this.
constexpr std::size_t kReceiveMaximum = 65'536;

using Outcome = Result<CallbackConnection::Received>;

// Hands the outcome of the operation in progress from the connection's queue
// to the waiting thread. Each operation gets a ticket; only the first outcome
// delivered under the current ticket is kept, so a second state change or a
// callback of an operation given up is dropped.
class Mailbox {
public:
    static Result<std::shared_ptr<Mailbox>> create() {
        auto pipe = openPipe(true);
        if (!pipe) return pipe.error();
        return std::shared_ptr<Mailbox>(new Mailbox(std::move(*pipe)));
    }

    std::uint64_t expect() {
        MutexLock lock(mutex_);
        slot_.reset();
        drain();
        return ++ticket_;
    }

    void deliver(std::uint64_t ticket, Outcome outcome) {
        MutexLock lock(mutex_);
        if (ticket != ticket_ || slot_) return;
        slot_.emplace(std::move(outcome));
        const char byte = 1;
        // A full pipe is readable already; nothing is lost by not writing.
        while (::write(wake_.writeEnd.get(), &byte, 1) < 0 && errno == EINTR) {
        }
    }

    Outcome await(const AttemptWaiter& waiter) {
        for (;;) {
            {
                MutexLock lock(mutex_);
                if (slot_) {
                    Outcome outcome = std::move(*slot_);
                    slot_.reset();
                    ++ticket_;  // nothing more is awaited under this ticket
                    drain();
                    return outcome;
                }
            }
            if (auto woken = waiter.wait(wake_.readEnd.get(), POLLIN); !woken) {
                MutexLock lock(mutex_);
                ++ticket_;
                return woken.error();
            }
        }
    }

private:
    explicit Mailbox(Pipe wake) : wake_(std::move(wake)) {}

    void drain() {
        char bytes[64];
        while (::read(wake_.readEnd.get(), bytes, sizeof bytes) > 0) {
        }
    }

    Mutex mutex_;
    std::uint64_t ticket_ NV_GUARDED_BY(mutex_) = 0;
    std::optional<Outcome> slot_ NV_GUARDED_BY(mutex_);
    Pipe wake_;
};

class CallbackStream final : public ByteStream {
public:
    CallbackStream(std::shared_ptr<CallbackConnection> connection, std::shared_ptr<Mailbox> mailbox,
                   AttemptWaiter waiter)
        : connection_(std::move(connection)), mailbox_(std::move(mailbox)), waiter_(std::move(waiter)) {}
    ~CallbackStream() override { connection_->cancel(); }

    Status start() {
        const std::uint64_t ticket = mailbox_->expect();
        connection_->start([mailbox = mailbox_, ticket](Status ready) {
            if (ready) {
                mailbox->deliver(ticket, CallbackConnection::Received{});
            } else {
                mailbox->deliver(ticket, ready.error());
            }
        });
        return finish();
    }

    Status sendAll(std::span<const std::uint8_t> bytes) override {
        const std::uint64_t ticket = mailbox_->expect();
        connection_->send({bytes.begin(), bytes.end()}, [mailbox = mailbox_, ticket](Status sent) {
            if (sent) {
                mailbox->deliver(ticket, CallbackConnection::Received{});
            } else {
                mailbox->deliver(ticket, sent.error());
            }
        });
        return finish();
    }

    Result<std::size_t> receive(std::span<std::uint8_t> buffer) override {
        if (buffer.empty()) return std::size_t{0};
        while (pending_.empty()) {
            if (failure_) return fail(*failure_);
            if (ended_) return std::size_t{0};
            const std::uint64_t ticket = mailbox_->expect();
            connection_->receive(std::min(buffer.size(), kReceiveMaximum),
                                 [mailbox = mailbox_, ticket](Outcome received) {
                                     mailbox->deliver(ticket, std::move(received));
                                 });
            Outcome received = mailbox_->await(waiter_);
            if (!received) return fail(received.error());
            pending_ = std::move(received->data);
            ended_ = received->complete;
            failure_ = std::move(received->failure);
        }
        // A connection that answers with more than was asked keeps the rest
        // for the next call.
        const std::size_t count = std::min(buffer.size(), pending_.size());
        std::memcpy(buffer.data(), pending_.data(), count);
        pending_.erase(pending_.begin(), pending_.begin() + static_cast<std::ptrdiff_t>(count));
        return count;
    }

private:
    Status finish() {
        Outcome outcome = mailbox_->await(waiter_);
        if (!outcome) return fail(outcome.error());
        return {};
    }

    Error fail(Error error) {
        // Whatever stopped this operation ends the attempt: nothing later may
        // use a connection left halfway through a request.
        connection_->cancel();
        return error;
    }

    std::shared_ptr<CallbackConnection> connection_;
    std::shared_ptr<Mailbox> mailbox_;
    AttemptWaiter waiter_;
    std::vector<std::uint8_t> pending_;
    bool ended_ = false;
    std::optional<Error> failure_;  // the next receive's, once pending_ is handed out
};

}  // namespace

Error connectionError(ConnectionErrorKind kind, int code) {
    switch (kind) {
    case ConnectionErrorKind::posix:
        return posixError(code);
    case ConnectionErrorKind::dns:
        return Error{kDNSErrorDomain, code, "The host name could not be resolved (error " + std::to_string(code) + ")."};
    case ConnectionErrorKind::tls:
        if (code == kTLSStatusClosedWithoutNotify) return closedWithoutNotifyError();
        return Error{kOSStatusErrorDomain, code,
                     "A secure connection could not be made (error " + std::to_string(code) + ")."};
    case ConnectionErrorKind::other:
        break;
    }
    return Error{kConnectionErrorDomain, code, "The connection failed (error " + std::to_string(code) + ")."};
}

Result<std::unique_ptr<ByteStream>> openCallbackStream(std::shared_ptr<CallbackConnection> connection,
                                                       std::chrono::milliseconds timeout,
                                                       const Cancellation* cancellation) {
    auto waiter = AttemptWaiter::start(timeout, cancellation);
    if (!waiter) return waiter.error();
    auto mailbox = Mailbox::create();
    if (!mailbox) return mailbox.error();
    auto stream = std::make_unique<CallbackStream>(std::move(connection), std::move(*mailbox), std::move(*waiter));
    if (auto ready = stream->start(); !ready) return ready.error();
    return std::unique_ptr<ByteStream>(std::move(stream));
}

}  // namespace netvane
