// The blocking stream over callback-driven connections, against a scripted
// connection whose callbacks run on a queue of their own, as the platform's do.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "netcore/publicip/callback_stream.h"
#include "netcore/publicip/http_exchange.h"
#include "support/serial_queue.h"

namespace netvane {
namespace {

using namespace std::chrono_literals;
using Received = CallbackConnection::Received;

constexpr auto kGenerous = 10s;
constexpr auto kShort = 100ms;

Received chunk(const std::string& text, bool complete = false) {
    return Received{{text.begin(), text.end()}, complete, std::nullopt};
}

// Answers each call on its queue from a script; a call the script has no
// answer for is held, unanswered, until the test releases it.
class ScriptedConnection final : public CallbackConnection {
public:
    std::vector<Status> readiness{Status{}};  // every outcome reported for start
    std::deque<Result<Received>> receives;
    // The next receive first answers the reads held so far with this, at once
    // on the caller's thread, so that the answer is there before the wait.
    std::optional<Result<Received>> lateAnswer;

    void start(Done ready) override {
        for (const Status& outcome : readiness) queue_.async([ready, outcome] { ready(outcome); });
    }
    void send(std::vector<std::uint8_t> bytes, Done done) override {
        {
            std::lock_guard lock(mutex_);
            sent_.append(bytes.begin(), bytes.end());
        }
        queue_.async([done] { done(Status{}); });
    }
    void receive(std::size_t maximum, ReceiveDone done) override {
        std::lock_guard lock(mutex_);
        maximums_.push_back(maximum);
        if (lateAnswer) {
            for (ReceiveDone& held : held_) held(*lateAnswer);
            held_.clear();
            lateAnswer.reset();
        }
        if (receives.empty()) {
            held_.push_back(std::move(done));
            return;
        }
        queue_.async([done, answer = std::move(receives.front())] { done(answer); });
        receives.pop_front();
    }
    void cancel() override {
        std::lock_guard lock(mutex_);
        ++cancels_;
    }

    // Answers every held receive now, as a connection does when it is torn down.
    void releaseHeld(Result<Received> answer) {
        std::lock_guard lock(mutex_);
        for (ReceiveDone& done : held_) queue_.async([done, answer] { done(answer); });
        held_.clear();
    }
    std::string sent() {
        std::lock_guard lock(mutex_);
        return sent_;
    }
    std::vector<std::size_t> maximums() {
        std::lock_guard lock(mutex_);
        return maximums_;
    }
    int cancels() {
        std::lock_guard lock(mutex_);
        return cancels_;
    }
    void drain() { queue_.sync([] {}); }

private:
    SerialQueue queue_{"connection"};
    std::mutex mutex_;
    std::string sent_;
    std::vector<std::size_t> maximums_;
    std::vector<ReceiveDone> held_;
    int cancels_ = 0;
};

Result<std::size_t> receiveInto(ByteStream& stream, std::string& text, std::size_t size) {
    std::vector<std::uint8_t> buffer(size);
    auto received = stream.receive(buffer);
    if (received) text.append(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(*received));
    return received;
}

TEST(CallbackStream, ExchangeSendsTheRequestAndReadsUntilThePeerFinishes) {
    auto connection = std::make_shared<ScriptedConnection>();
    connection->receives = {chunk("HTTP/1.1 200 OK\r\n\r\n"), chunk("192.0.2.7", true)};
    auto stream = openCallbackStream(connection, kGenerous, nullptr);
    ASSERT_TRUE(stream) << stream.error().message;
    auto response = PublicIPService::exchange(**stream, "GET / HTTP/1.1\r\n\r\n");
    ASSERT_TRUE(response) << response.error().message;
    EXPECT_EQ(std::string(response->begin(), response->end()), "HTTP/1.1 200 OK\r\n\r\n192.0.2.7");
    EXPECT_EQ(connection->sent(), "GET / HTTP/1.1\r\n\r\n");
    // Each read asks for at most 64 KiB; the end came with the last data, so
    // no read was issued after it.
    EXPECT_EQ(connection->maximums(), (std::vector<std::size_t>{65'536, 65'536}));
    stream->reset();
    EXPECT_GE(connection->cancels(), 1) << "a finished stream cancels its connection";
}

TEST(CallbackStream, DataBeyondTheCallersBufferWaitsForTheNextCall) {
    auto connection = std::make_shared<ScriptedConnection>();
    connection->receives = {chunk("0123456789", true)};
    auto stream = openCallbackStream(connection, kGenerous, nullptr);
    ASSERT_TRUE(stream);
    std::string text;
    EXPECT_EQ(*receiveInto(**stream, text, 4), 4u);
    EXPECT_EQ(*receiveInto(**stream, text, 4), 4u);
    EXPECT_EQ(*receiveInto(**stream, text, 4), 2u);
    EXPECT_EQ(*receiveInto(**stream, text, 4), 0u);
    EXPECT_EQ(text, "0123456789");
    EXPECT_EQ(connection->maximums().size(), 1u);
}

TEST(CallbackStream, EmptyAnswersAreReadAgainAndAnEmptyEndIsTheEnd) {
    auto connection = std::make_shared<ScriptedConnection>();
    connection->receives = {chunk(""), chunk("ab"), chunk("", true)};
    auto stream = openCallbackStream(connection, kGenerous, nullptr);
    ASSERT_TRUE(stream);
    std::string text;
    EXPECT_EQ(*receiveInto(**stream, text, 16), 2u);
    EXPECT_EQ(*receiveInto(**stream, text, 16), 0u);
    EXPECT_EQ(text, "ab");
}

TEST(CallbackStream, OnlyTheFirstReadinessOutcomeCounts) {
    const Error refused = connectionError(ConnectionErrorKind::posix, ECONNREFUSED);
    {
        auto connection = std::make_shared<ScriptedConnection>();
        connection->readiness = {Status{}, Status(cancelledError())};
        connection->receives = {chunk("x", true)};
        auto stream = openCallbackStream(connection, kGenerous, nullptr);
        ASSERT_TRUE(stream);
        connection->drain();
        // The late cancellation must not be taken for the send's outcome.
        EXPECT_TRUE((*stream)->sendAll(std::vector<std::uint8_t>{'a'}));
        std::string text;
        EXPECT_EQ(*receiveInto(**stream, text, 4), 1u);
    }
    {
        auto connection = std::make_shared<ScriptedConnection>();
        connection->readiness = {Status(refused), Status{}};
        auto stream = openCallbackStream(connection, kGenerous, nullptr);
        ASSERT_FALSE(stream);
        EXPECT_EQ(stream.error(), refused);
    }
}

TEST(CallbackStream, ReceiveErrorsPassThroughAndEndTheConnection) {
    auto connection = std::make_shared<ScriptedConnection>();
    const Error reset = connectionError(ConnectionErrorKind::posix, ECONNRESET);
    connection->receives = {chunk("partial"), reset};
    auto stream = openCallbackStream(connection, kGenerous, nullptr);
    ASSERT_TRUE(stream);
    auto response = PublicIPService::exchange(**stream, "GET");
    ASSERT_FALSE(response);
    EXPECT_EQ(response.error(), reset);
    EXPECT_GE(connection->cancels(), 1);
}

// The platform may report an error together with the last bytes it received.
Received endedBy(Error error, const std::string& text = "") {
    Received received = chunk(text);
    received.failure = std::move(error);
    return received;
}

std::string exchanged(std::deque<Result<Received>> receives) {
    auto connection = std::make_shared<ScriptedConnection>();
    connection->receives = std::move(receives);
    auto stream = openCallbackStream(connection, kGenerous, nullptr);
    if (!stream) return "error: " + stream.error().message;
    auto response = PublicIPService::exchange(**stream, "GET");
    return response ? std::string(response->begin(), response->end()) : "error: " + response.error().message;
}

TEST(CallbackStream, BytesThatCameWithAnErrorAreReadBeforeIt) {
    const Error noNotify = connectionError(ConnectionErrorKind::tls, kTLSStatusClosedWithoutNotify);
    ASSERT_EQ(noNotify, closedWithoutNotifyError());
    const Error reset = connectionError(ConnectionErrorKind::posix, ECONNRESET);
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\n";

    // A close without close_notify ends an answer whose last bytes prove it whole.
    EXPECT_EQ(exchanged({chunk(head), endedBy(noNotify, "192.0.2.7")}), head + "192.0.2.7");
    EXPECT_EQ(exchanged({chunk(head + "192.0.2.7"), endedBy(noNotify)}), head + "192.0.2.7");
    // Any other answer it ends, and any other error, fail the exchange with that error.
    EXPECT_EQ(exchanged({chunk(head), endedBy(noNotify, "192.0.2.")}), "error: " + noNotify.message);
    EXPECT_EQ(exchanged({chunk(head), endedBy(reset, "192.0.2.7")}), "error: " + reset.message);
    // An error beside the end of the stream still wins over it.
    Received endedAndFailed = endedBy(noNotify, "192.0.2.");
    endedAndFailed.complete = true;
    EXPECT_EQ(exchanged({chunk(head), endedAndFailed}), "error: " + noNotify.message);
}

TEST(CallbackStream, ConnectionThatNeverBecomesReadyTimesOut) {
    auto connection = std::make_shared<ScriptedConnection>();
    connection->readiness = {};
    auto stream = openCallbackStream(connection, kShort, nullptr);
    ASSERT_FALSE(stream);
    EXPECT_EQ(stream.error(), timedOutError());
    EXPECT_GE(connection->cancels(), 1);
}

TEST(CallbackStream, CancellationWakesAWaitingReceiveAndLateAnswersAreDropped) {
    auto connection = std::make_shared<ScriptedConnection>();
    Cancellation cancellation;
    auto stream = openCallbackStream(connection, kGenerous, &cancellation);
    ASSERT_TRUE(stream);
    std::thread canceller([&] {
        std::this_thread::sleep_for(20ms);
        cancellation.cancel();
    });
    std::string text;
    auto received = receiveInto(**stream, text, 16);
    canceller.join();
    ASSERT_FALSE(received);
    EXPECT_EQ(received.error(), cancelledError());
    EXPECT_GE(connection->cancels(), 1);

    // The connection answers the abandoned read after the stream is gone.
    stream->reset();
    connection->releaseHeld(chunk("too late", true));
    connection->drain();
}

TEST(CallbackStream, DeadlineBoundsEveryCallAndAnAbandonedReadsAnswerIsNeverTaken) {
    auto connection = std::make_shared<ScriptedConnection>();
    auto stream = openCallbackStream(connection, kShort, nullptr);
    ASSERT_TRUE(stream);
    std::string text;
    auto received = receiveInto(**stream, text, 16);
    ASSERT_FALSE(received);
    EXPECT_EQ(received.error(), timedOutError());

    // The first read's answer arrives while the second read waits: it
    // belongs to the read given up and must not pass for the second's.
    connection->lateAnswer = chunk("stale");
    received = receiveInto(**stream, text, 16);
    ASSERT_FALSE(received);
    EXPECT_EQ(received.error(), timedOutError());
    EXPECT_EQ(text, "");
    connection->releaseHeld(chunk("late"));
    connection->drain();
}

TEST(ConnectionError, KeepsTheCodeUnderTheKindsDomain) {
    EXPECT_EQ(connectionError(ConnectionErrorKind::posix, ECONNREFUSED), posixError(ECONNREFUSED));
    const Error dns = connectionError(ConnectionErrorKind::dns, -65554);
    EXPECT_EQ(dns.domain, kDNSErrorDomain);
    EXPECT_EQ(dns.code, -65554);
    const Error tls = connectionError(ConnectionErrorKind::tls, -9808);
    EXPECT_EQ(tls.domain, kOSStatusErrorDomain);
    EXPECT_EQ(tls.code, -9808);
    EXPECT_NE(tls.message.find("-9808"), std::string::npos);
    EXPECT_EQ(connectionError(ConnectionErrorKind::other, 5).domain, kConnectionErrorDomain);
    EXPECT_EQ(connectionError(ConnectionErrorKind::tls, kTLSStatusClosedWithoutNotify), closedWithoutNotifyError());
}

}  // namespace
}  // namespace netvane
