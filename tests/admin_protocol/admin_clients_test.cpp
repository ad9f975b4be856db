// The client proxies over a scripted channel: what each call sends, and how
// replies of every shape come back, whatever the transport underneath.
#include "admin_protocol/admin_clients.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "admin_protocol/admin_error.h"

namespace netvane {
namespace {

using ipc::Argument;
using ipc::ReplySlot;

struct Sent {
    std::string selector;
    std::vector<Argument> args;
};

// Answers each call with the next scripted reply and records what was sent.
class ScriptedChannel final : public AdminChannel {
public:
    ScriptedChannel(std::vector<Sent>& sent, std::deque<Result<std::vector<ReplySlot>>> replies)
        : sent_(sent), replies_(std::move(replies)) {}

    Result<std::vector<ReplySlot>> call(const MethodDescription& method, std::vector<Argument> args,
                                        ReplyDeadline) override {
        sent_.push_back(Sent{std::string(method.selector), std::move(args)});
        auto reply = std::move(replies_.front());
        replies_.pop_front();
        return reply;
    }

private:
    std::vector<Sent>& sent_;
    std::deque<Result<std::vector<ReplySlot>>> replies_;
};

std::vector<ReplySlot> slots(std::vector<ReplySlot> values) { return values; }

TEST(AdminClients, CallsCarryTheirArgumentsAndNilStaysNil) {
    std::vector<Sent> sent;
    const plist::Dictionary status{{"version", "0.1.0"}, {"protocol", 1}, {"paired", false}};
    AdminAppClient app(std::make_unique<ScriptedChannel>(
        sent, std::deque<Result<std::vector<ReplySlot>>>{slots({plist::Value(status)}), slots({plist::Value(status)}),
                                                         slots({std::monostate{}})}));
    ASSERT_TRUE(app.status(std::nullopt));
    auto answered = app.status(std::string("token"));
    ASSERT_TRUE(answered);
    EXPECT_EQ(*answered, status);
    EXPECT_TRUE(app.setServiceEnabled("svc", true, "t"));

    ASSERT_EQ(sent.size(), 3u);
    EXPECT_EQ(sent[0].selector, "statusWithToken:reply:");
    EXPECT_EQ(sent[0].args, (std::vector<Argument>{std::nullopt}));
    EXPECT_EQ(sent[1].args, (std::vector<Argument>{plist::Value("token")}));
    EXPECT_EQ(sent[2].selector, "setServiceEnabledWithServiceID:enabled:token:reply:");
    EXPECT_EQ(sent[2].args, (std::vector<Argument>{plist::Value("svc"), plist::Value(true), plist::Value("t")}));

    std::vector<Sent> controlSent;
    AdminControlClient control(std::make_unique<ScriptedChannel>(
        controlSent, std::deque<Result<std::vector<ReplySlot>>>{slots({std::monostate{}})}));
    const std::vector<std::uint8_t> authorization(32, 7);
    EXPECT_TRUE(control.approvePairing("ID", authorization));
    EXPECT_EQ(controlSent[0].args, (std::vector<Argument>{plist::Value("ID"), plist::Value(plist::Data(32, 7))}));
}

TEST(AdminClients, DaemonAndTransportErrorsComeBackUnchanged) {
    std::vector<Sent> sent;
    const Error daemonError = toError(AdminError::unknownRequest);
    const Error lost{ipc::kIpcErrorDomain, ipc::kConnectionLost, "connection closed by the daemon"};
    AdminAppClient app(std::make_unique<ScriptedChannel>(
        sent, std::deque<Result<std::vector<ReplySlot>>>{slots({std::monostate{}, daemonError}), lost,
                                                         slots({plist::Value("TOKEN"), std::monostate{}})}));
    auto awaited = app.awaitPairing("ID");
    ASSERT_FALSE(awaited);
    EXPECT_EQ(awaited.error(), daemonError);
    auto cut = app.unpair("t");
    ASSERT_FALSE(cut);
    EXPECT_EQ(cut.error(), lost);
    auto token = app.awaitPairing("ID");
    ASSERT_TRUE(token);
    EXPECT_EQ(*token, "TOKEN");
}

TEST(AdminClients, RepliesOfTheWrongShapeAreRefused) {
    const std::vector<std::vector<ReplySlot>> wrong = {
        {},                                              // no slot at all
        {plist::Value("a string, not a dictionary")},   // wrong type
        {plist::Value(plist::Dictionary{}), std::monostate{}},  // one slot too many
        {Error{"x", 1, "an error where a value belongs"}},
    };
    for (const auto& reply : wrong) {
        std::vector<Sent> sent;
        AdminControlClient control(
            std::make_unique<ScriptedChannel>(sent, std::deque<Result<std::vector<ReplySlot>>>{reply}));
        auto status = control.status();
        ASSERT_FALSE(status);
        EXPECT_EQ(status.error().domain, ipc::kIpcErrorDomain);
        EXPECT_EQ(status.error().code, ipc::kBadReply);
    }

    // An array whose elements are not all dictionaries, and a pairing reply
    // with neither a value nor an error.
    std::vector<Sent> sent;
    AdminAppClient app(std::make_unique<ScriptedChannel>(
        sent, std::deque<Result<std::vector<ReplySlot>>>{slots({plist::Value(plist::Array{plist::Value(1)})}),
                                                         slots({std::monostate{}, std::monostate{}})}));
    EXPECT_EQ(app.tunnelOwners().error().code, ipc::kBadReply);
    EXPECT_EQ(app.beginPairing().error().code, ipc::kBadReply);
}

}  // namespace
}  // namespace netvane
