#include "daemon/sessions.h"

#include <gtest/gtest.h>

#include "admin_protocol/admin_error.h"
#include "tests/daemon/daemon_fixture.h"

namespace netvane {
namespace {

using namespace netvane::testing;

const PeerIdentity kApp{100, 501};
const PeerIdentity kControl{200, 501};
const PeerIdentity kOtherUsersApp{300, 502};

using Sessions = DaemonTest;

template <class Value>
struct Captured {
    int calls = 0;
    Value value{};
    std::function<void(Value)> reply() {
        return [this](Value v) {
            ++calls;
            value = std::move(v);
        };
    }
};

plist::Dictionary statusOf(AppSession& session, std::optional<std::string> token) {
    Captured<plist::Dictionary> status;
    session.statusWithToken(std::move(token), status.reply());
    EXPECT_EQ(status.calls, 1);
    return status.value;
}

std::optional<Error> errorReplyOf(const std::function<void(ErrorReply)>& call) {
    Captured<std::optional<Error>> reply;
    call(reply.reply());
    EXPECT_EQ(reply.calls, 1);
    return reply.value;
}

TEST_F(Sessions, EachSessionHasItsOwnIdentity) {
    AppSession a(daemon_, kApp);
    ControlSession b(daemon_, kControl);
    AppSession c(daemon_, kApp);
    EXPECT_NE(a.identity(), b.identity());
    EXPECT_NE(a.identity(), c.identity());
    EXPECT_NE(b.identity(), c.identity());
    EXPECT_EQ(c.peer(), kApp);
}

TEST_F(Sessions, StatusCarriesVersionProtocolAndPairedOnlyForTheApp) {
    AppSession app(daemon_, kApp);
    ControlSession control(daemon_, kControl);
    const plist::Dictionary expectedUnpaired{{"version", "1.2.3"}, {"protocol", 1}, {"paired", false}};
    EXPECT_EQ(statusOf(app, std::nullopt), expectedUnpaired);
    EXPECT_EQ(statusOf(app, "unknown token"), expectedUnpaired);
    EXPECT_EQ(statusOf(app, ""), expectedUnpaired);

    const std::string token = pairThroughWorkflow(kApp.uid, app.identity());
    EXPECT_EQ(*statusOf(app, token).find("paired"), plist::Value(true));
    AppSession otherUser(daemon_, kOtherUsersApp);
    EXPECT_EQ(*statusOf(otherUser, token).find("paired"), plist::Value(false));

    Captured<plist::Dictionary> status;
    control.statusWithReply(status.reply());
    EXPECT_EQ(status.value, (plist::Dictionary{{"version", "1.2.3"}, {"protocol", 1}}));
}

TEST_F(Sessions, PairingRoadFromBeginToServiceSwitchAndUnpair) {
    preferences_->addService("ABC", {false, std::nullopt});
    AppSession app(daemon_, kApp);
    ControlSession control(daemon_, kControl);

    Captured<std::optional<std::string>> begun;
    app.beginPairing([&](std::optional<std::string> id, std::optional<Error> error) {
        EXPECT_EQ(error, std::nullopt);
        begun.reply()(std::move(id));
    });
    ASSERT_TRUE(begun.value);
    auto awaited = std::make_shared<PairingOutcome>();
    app.awaitPairing(*begun.value, recordInto(awaited));

    Captured<plist::Array> pending;
    control.pendingPairings(pending.reply());
    ASSERT_EQ(pending.value.size(), 1u);
    EXPECT_EQ(*pending.value[0].find("id")->string(), *begun.value);

    EXPECT_EQ(errorReplyOf([&](ErrorReply r) { control.approvePairing(*begun.value, kGrantedAuthorization, r); }),
              std::nullopt);
    ASSERT_TRUE(awaited->token);
    const std::string token = *awaited->token;
    EXPECT_EQ(authorizer_->calls().back().peer, kControl) << "the approver is the control peer, pid included";

    EXPECT_EQ(errorReplyOf([&](ErrorReply r) { app.setServiceEnabled("ABC", true, token, r); }), std::nullopt);
    EXPECT_EQ(preferences_->enabled("ABC"), true);
    EXPECT_EQ(errorReplyOf([&](ErrorReply r) { app.unpair(token, r); }), std::nullopt);
    EXPECT_EQ(*statusOf(app, token).find("paired"), plist::Value(false));

    const auto refused = errorReplyOf([&](ErrorReply r) { app.setServiceEnabled("ABC", false, token, r); });
    EXPECT_EQ(refused, toError(AdminError::notPaired));
    EXPECT_EQ(preferences_->enabled("ABC"), true);
}

TEST_F(Sessions, ControlErrorsReachTheReplyAsAdminErrors) {
    AppSession app(daemon_, kApp);
    ControlSession control(daemon_, kControl);
    ControlSession otherControl(daemon_, PeerIdentity{400, 502});
    const std::string id = *daemon_->beginPairing(kApp.uid, app.identity());

    const std::vector<std::uint8_t> shortAuthorization(31, 0);
    EXPECT_EQ(codeOf(errorReplyOf([&](ErrorReply r) { control.approvePairing(id, shortAuthorization, r); })),
              AdminError::authorizationFailed);
    EXPECT_EQ(codeOf(errorReplyOf([&](ErrorReply r) { otherControl.approvePairing(id, kGrantedAuthorization, r); })),
              AdminError::wrongUser);
    EXPECT_EQ(codeOf(errorReplyOf([&](ErrorReply r) { otherControl.denyPairing(id, r); })), AdminError::wrongUser);
    Captured<plist::Array> othersView;
    otherControl.pendingPairings(othersView.reply());
    EXPECT_TRUE(othersView.value.empty()) << "requests of other users are invisible";

    EXPECT_EQ(errorReplyOf([&](ErrorReply r) { control.denyPairing(id, r); }), std::nullopt);
    EXPECT_EQ(codeOf(errorReplyOf([&](ErrorReply r) { control.denyPairing(id, r); })), AdminError::unknownRequest);
    EXPECT_EQ(codeOf(errorReplyOf([&](ErrorReply r) { control.unpairAll(shortAuthorization, r); })),
              AdminError::authorizationFailed);
    EXPECT_EQ(errorReplyOf([&](ErrorReply r) { control.unpairAll(kGrantedAuthorization, r); }), std::nullopt);
}

TEST_F(Sessions, EndingAnAppSessionDropsItsRequestSoApprovalExpires) {
    auto app = std::make_unique<AppSession>(daemon_, kApp);
    ControlSession control(daemon_, kControl);
    Captured<std::optional<std::string>> begun;
    app->beginPairing([&](std::optional<std::string> id, std::optional<Error>) { begun.reply()(std::move(id)); });
    auto awaited = std::make_shared<PairingOutcome>();
    app->awaitPairing(*begun.value, recordInto(awaited));

    app->ended();
    app.reset();
    EXPECT_EQ(awaited->count(), 0);
    EXPECT_EQ(codeOf(errorReplyOf([&](ErrorReply r) { control.approvePairing(*begun.value, kGrantedAuthorization, r); })),
              AdminError::unknownRequest);
}

TEST_F(Sessions, TunnelOwnersInScanOrderWithoutPairing) {
    tunnels_ = std::make_shared<FakeTunnelOwnerSource>(std::vector<TunnelOwnerEntry>{
        {"utun3", 812, "vpnd", "/usr/sbin/vpnd"},
        {"tun0", -1, "", ""},
        {"tap1", 77, "qemu", "/usr/bin/qemu"},
    });
    daemon_ = makeDaemon(PairingStore::open(dir_).value());
    AppSession app(daemon_, kApp);
    Captured<plist::Array> owners;
    app.tunnelOwners(owners.reply());
    ASSERT_EQ(owners.calls, 1);
    ASSERT_EQ(owners.value.size(), 3u);
    EXPECT_EQ(owners.value[0], plist::Value(plist::Dictionary{
                                   {"interface", "utun3"}, {"name", "vpnd"}, {"pid", 812}, {"path", "/usr/sbin/vpnd"}}));
    EXPECT_EQ(*owners.value[1].find("interface")->string(), "tun0");
    EXPECT_EQ(owners.value[1].find("pid")->int64(), -1);
    EXPECT_EQ(*owners.value[2].find("interface")->string(), "tap1");
}

TEST_F(Sessions, NoTunnelsOrNoScanGiveAnEmptyList) {
    AppSession app(daemon_, kApp);
    Captured<plist::Array> owners;
    app.tunnelOwners(owners.reply());
    EXPECT_EQ(owners.calls, 1);
    EXPECT_TRUE(owners.value.empty());

    tunnels_.reset();
    daemon_ = makeDaemon(PairingStore::open(dir_).value());
    AppSession withoutScan(daemon_, kApp);
    Captured<plist::Array> none;
    withoutScan.tunnelOwners(none.reply());
    EXPECT_EQ(none.calls, 1);
    EXPECT_TRUE(none.value.empty());
}

}  // namespace
}  // namespace netvane
