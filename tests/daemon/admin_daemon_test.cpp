#include "daemon/admin_daemon.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <fstream>

#include "admin_protocol/admin_error.h"
#include "support/files.h"
#include "support/plist/plist.h"
#include "tests/daemon/daemon_fixture.h"

namespace netvane {
namespace {

using namespace netvane::testing;

constexpr std::uint32_t kUser = 501;
constexpr std::uint32_t kOtherUser = 502;
const PeerIdentity kApprover{4242, kUser};
const PeerIdentity kOtherApprover{4343, kOtherUser};

using PairingWorkflow = DaemonTest;

std::vector<std::string> idsOf(const plist::Array& pending) {
    std::vector<std::string> ids;
    for (const plist::Value& entry : pending) ids.push_back(*entry.find("id")->string());
    return ids;
}

TEST_F(PairingWorkflow, BeginListsAnUpperCaseRequestForItsUserOnly) {
    const Date before = Date::now();
    const auto id = daemon_->beginPairing(kUser, 1);
    ASSERT_TRUE(id.ok());
    ASSERT_EQ(id->size(), 36u);
    for (char c : *id) EXPECT_FALSE(std::islower(static_cast<unsigned char>(c))) << *id;

    const plist::Array pending = daemon_->pendingPairings(kUser);
    ASSERT_EQ(pending.size(), 1u);
    const plist::Dictionary& entry = *pending[0].dictionary();
    ASSERT_EQ(entry.size(), 2u);
    EXPECT_EQ(*entry.find("id")->string(), *id);
    const auto created = entry.find("created")->date();
    ASSERT_TRUE(created);
    EXPECT_GE(*created, before);
    EXPECT_LE(*created, Date::now());

    EXPECT_TRUE(daemon_->pendingPairings(kOtherUser).empty());
    EXPECT_EQ(logLines(), (std::vector<std::string>{"pairing requested by uid 501 as " + *id}));
}

TEST_F(PairingWorkflow, SecondBeginSupersedesFirstAcrossSessions) {
    const std::string first = *daemon_->beginPairing(kUser, 1);
    auto firstWaiter = std::make_shared<PairingOutcome>();
    daemon_->awaitPairing(first, 1, recordInto(firstWaiter));
    const std::string otherUsers = *daemon_->beginPairing(kOtherUser, 3);

    // A different connection of the same user still supersedes.
    const std::string second = *daemon_->beginPairing(kUser, 2);
    EXPECT_EQ(firstWaiter->count(), 1);
    EXPECT_EQ(firstWaiter->token, std::nullopt);
    EXPECT_EQ(codeOf(firstWaiter->error), AdminError::unknownRequest);
    EXPECT_EQ(idsOf(daemon_->pendingPairings(kUser)), std::vector<std::string>{second});
    EXPECT_EQ(idsOf(daemon_->pendingPairings(kOtherUser)), std::vector<std::string>{otherUsers});
    EXPECT_EQ(codeOf(daemon_->approvePairing(first, kGrantedAuthorization, kApprover)), AdminError::unknownRequest);
}

TEST_F(PairingWorkflow, AwaitOnlyFromTheBeginningSessionAndOnlyWhilePending) {
    const std::string id = *daemon_->beginPairing(kUser, 1);
    for (auto [requestID, session] : {std::pair<std::string, SessionIdentity>{id, 2}, {"UNKNOWN", 1}}) {
        auto outcome = std::make_shared<PairingOutcome>();
        daemon_->awaitPairing(requestID, session, recordInto(outcome));
        EXPECT_EQ(outcome->count(), 1);
        EXPECT_EQ(codeOf(outcome->error), AdminError::unknownRequest);
    }
    // The foreign await left the request alone.
    auto owner = std::make_shared<PairingOutcome>();
    daemon_->awaitPairing(id, 1, recordInto(owner));
    EXPECT_EQ(owner->count(), 0);
    EXPECT_EQ(idsOf(daemon_->pendingPairings(kUser)), std::vector<std::string>{id});
}

TEST_F(PairingWorkflow, ApprovalAnswersTheLatestWaiterWithAPersistedToken) {
    const std::string id = *daemon_->beginPairing(kUser, 1);
    auto replaced = std::make_shared<PairingOutcome>();
    auto latest = std::make_shared<PairingOutcome>();
    daemon_->awaitPairing(id, 1, recordInto(replaced));
    daemon_->awaitPairing(id, 1, recordInto(latest));

    ASSERT_TRUE(daemon_->approvePairing(id, kGrantedAuthorization, kApprover).ok());
    EXPECT_EQ(replaced->count(), 0);
    ASSERT_EQ(latest->count(), 1);
    EXPECT_EQ(latest->error, std::nullopt);
    ASSERT_TRUE(latest->token);
    EXPECT_EQ(latest->token->size(), 44u);
    EXPECT_TRUE(daemon_->isPaired(*latest->token, kUser));
    EXPECT_FALSE(daemon_->isPaired(*latest->token, kOtherUser));
    EXPECT_TRUE(PairingStore::load(dir_).value().isPaired(*latest->token, kUser));
    EXPECT_TRUE(daemon_->pendingPairings(kUser).empty());
    EXPECT_EQ(logLines().back(), "pairing " + id + " approved for uid 501");

    const auto calls = authorizer_->calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].peer, kApprover);
    EXPECT_EQ(calls[0].externalForm, kGrantedAuthorization);
    EXPECT_EQ(calls[0].right, "com.tarnwick.Netvane.admin.pair");

    EXPECT_EQ(codeOf(daemon_->approvePairing(id, kGrantedAuthorization, kApprover)), AdminError::unknownRequest);
    EXPECT_EQ(latest->count(), 1);
}

TEST_F(PairingWorkflow, ApprovalBeforeAwaitPairsButTheLaterAwaitHasExpired) {
    const std::string id = *daemon_->beginPairing(kUser, 1);
    ASSERT_TRUE(daemon_->approvePairing(id, kGrantedAuthorization, kApprover).ok());
    EXPECT_EQ(PairingStore::load(dir_).value().pairings.size(), 1u);
    auto outcome = std::make_shared<PairingOutcome>();
    daemon_->awaitPairing(id, 1, recordInto(outcome));
    EXPECT_EQ(codeOf(outcome->error), AdminError::unknownRequest);
}

TEST_F(PairingWorkflow, ApprovalByAnotherUserLeavesTheRequestPending) {
    const std::string id = *daemon_->beginPairing(kUser, 1);
    auto outcome = std::make_shared<PairingOutcome>();
    daemon_->awaitPairing(id, 1, recordInto(outcome));

    EXPECT_EQ(codeOf(daemon_->approvePairing(id, kGrantedAuthorization, kOtherApprover)), AdminError::wrongUser);
    EXPECT_EQ(codeOf(daemon_->denyPairing(id, kOtherUser)), AdminError::wrongUser);
    EXPECT_EQ(outcome->count(), 0);
    EXPECT_EQ(idsOf(daemon_->pendingPairings(kUser)), std::vector<std::string>{id});
    EXPECT_TRUE(PairingStore::load(dir_).value().pairings.empty());

    ASSERT_TRUE(daemon_->approvePairing(id, kGrantedAuthorization, kApprover).ok());
    EXPECT_TRUE(outcome->token);
}

TEST_F(PairingWorkflow, BadAuthorizationFailsBeforeAnyLookup) {
    const std::string id = *daemon_->beginPairing(kUser, 1);
    for (std::size_t size : {0u, 31u, 33u}) {
        SCOPED_TRACE(size);
        const std::vector<std::uint8_t> authorization(size, 0xA5);
        EXPECT_EQ(codeOf(daemon_->approvePairing(id, authorization, kApprover)), AdminError::authorizationFailed);
        EXPECT_EQ(codeOf(daemon_->approvePairing("UNKNOWN", authorization, kApprover)),
                  AdminError::authorizationFailed);
        EXPECT_EQ(codeOf(daemon_->unpairAll(authorization, kApprover)), AdminError::authorizationFailed);
    }
    EXPECT_TRUE(authorizer_->calls().empty()) << "the length rule comes before the authority";

    // Whatever the authority answers, the client hears authorizationFailed.
    authorizer_->answer(Error{"org.freedesktop.PolicyKit1.Error", 9, "not authorized"});
    EXPECT_EQ(codeOf(daemon_->approvePairing(id, kGrantedAuthorization, kApprover)),
              AdminError::authorizationFailed);
    EXPECT_EQ(codeOf(daemon_->approvePairing("UNKNOWN", kGrantedAuthorization, kApprover)),
              AdminError::authorizationFailed);
    EXPECT_EQ(idsOf(daemon_->pendingPairings(kUser)), std::vector<std::string>{id});
    EXPECT_FALSE(std::filesystem::exists(dir_ + "/pairings.plist"));
}

TEST_F(PairingWorkflow, WithoutAnAuthorityEveryRightIsRefused) {
    auto daemon = std::make_shared<AdminDaemon>(PairingStore::open(dir_).value(), "1", AdminDaemon::Backends{});
    const std::string id = *daemon->beginPairing(kUser, 1);
    EXPECT_EQ(codeOf(daemon->approvePairing(id, kGrantedAuthorization, kApprover)), AdminError::authorizationFailed);
    EXPECT_EQ(codeOf(daemon->unpairAll(kGrantedAuthorization, kApprover)), AdminError::authorizationFailed);
}

TEST_F(PairingWorkflow, DenialAnswersTheWaiterWithAuthorizationFailed) {
    const std::string id = *daemon_->beginPairing(kUser, 1);
    auto outcome = std::make_shared<PairingOutcome>();
    daemon_->awaitPairing(id, 1, recordInto(outcome));
    EXPECT_EQ(codeOf(daemon_->denyPairing("UNKNOWN", kUser)), AdminError::unknownRequest);
    EXPECT_EQ(outcome->count(), 0);

    ASSERT_TRUE(daemon_->denyPairing(id, kUser).ok());
    ASSERT_EQ(outcome->count(), 1);
    EXPECT_EQ(outcome->token, std::nullopt);
    ASSERT_TRUE(outcome->error);
    EXPECT_EQ(*outcome->error, toError(AdminError::authorizationFailed));
    EXPECT_TRUE(daemon_->pendingPairings(kUser).empty());
    EXPECT_TRUE(authorizer_->calls().empty()) << "denial needs no authorization";
    EXPECT_EQ(codeOf(daemon_->denyPairing(id, kUser)), AdminError::unknownRequest);
}

TEST_F(PairingWorkflow, EndedSessionDropsOnlyItsRequestsWithoutReplying) {
    const std::string mine = *daemon_->beginPairing(kUser, 1);
    const std::string theirs = *daemon_->beginPairing(kOtherUser, 2);
    auto outcome = std::make_shared<PairingOutcome>();
    daemon_->awaitPairing(mine, 1, recordInto(outcome));

    daemon_->sessionEnded(1);
    EXPECT_EQ(outcome->count(), 0);
    EXPECT_EQ(outcome.use_count(), 1) << "the dropped waiter is released";
    EXPECT_TRUE(daemon_->pendingPairings(kUser).empty());
    EXPECT_EQ(codeOf(daemon_->approvePairing(mine, kGrantedAuthorization, kApprover)), AdminError::unknownRequest);
    EXPECT_EQ(idsOf(daemon_->pendingPairings(kOtherUser)), std::vector<std::string>{theirs});
}

TEST_F(PairingWorkflow, FailedSaveOnApprovalNamesTheFileLogsItAndDropsTheWaiter) {
    // The state directory goes after start: nothing may be written anywhere else.
    ASSERT_EQ(::rmdir(dir_.c_str()), 0);
    const std::string id = *daemon_->beginPairing(kUser, 1);
    auto outcome = std::make_shared<PairingOutcome>();
    daemon_->awaitPairing(id, 1, recordInto(outcome));

    const Status approved = daemon_->approvePairing(id, kGrantedAuthorization, kApprover);
    ASSERT_FALSE(approved.ok());
    EXPECT_EQ(approved.error().domain, kPosixErrorDomain);
    EXPECT_EQ(approved.error().code, ENOENT);
    EXPECT_NE(approved.error().message.find(dir_ + "/pairings.plist"), std::string::npos) << approved.error().message;
    EXPECT_EQ(outcome->count(), 0);
    EXPECT_EQ(outcome.use_count(), 1) << "the waiter was dropped, not kept";
    EXPECT_TRUE(daemon_->pendingPairings(kUser).empty());
    EXPECT_FALSE(std::filesystem::exists(dir_)) << "the directory was not made again behind the daemon's back";
    EXPECT_EQ(logLines().back(), "uid 501's approval of " + id + " was not saved: " + approved.error().message);
}

// The directory is trusted once, at start, and then held: one put in its
// place afterwards never receives the pairing file.
TEST_F(PairingWorkflow, AReplacedStateDirectoryNeverReceivesTheFile) {
    std::filesystem::rename(dir_, dir_ + ".held");
    std::filesystem::create_directory(dir_);
    const std::string token = pairThroughWorkflow(kUser, 1);
    EXPECT_FALSE(std::filesystem::exists(dir_ + "/pairings.plist"));
    EXPECT_TRUE(PairingStore::load(dir_ + ".held").value().isPaired(token, kUser));
}

class UnpairTest : public DaemonTest {
protected:
    void SetUp() override {
        DaemonTest::SetUp();
        PairingStore store = PairingStore::open(dir_).value();
        first_ = *store.pair(kUser);
        second_ = *store.pair(kUser);
        others_ = *store.pair(kOtherUser);
        daemon_ = makeDaemon(std::move(store));
    }
    std::vector<PairingStore::Pairing> onDisk() { return PairingStore::load(dir_).value().pairings; }

    std::string first_, second_, others_;
};

TEST_F(UnpairTest, RemovesOnlyTheCallersTokenAndKeepsTheOrder) {
    const auto before = onDisk();
    ASSERT_EQ(before.size(), 3u);
    ASSERT_TRUE(daemon_->unpair(first_, kUser).ok());
    EXPECT_EQ(onDisk(), (std::vector<PairingStore::Pairing>{before[1], before[2]}));
    EXPECT_FALSE(daemon_->isPaired(first_, kUser));
    EXPECT_TRUE(daemon_->isPaired(second_, kUser));

    // Another user's token under this uid is not this user's to remove.
    ASSERT_TRUE(daemon_->unpair(others_, kUser).ok());
    EXPECT_TRUE(daemon_->isPaired(others_, kOtherUser));
    EXPECT_EQ(onDisk().size(), 2u);
}

TEST_F(UnpairTest, UnknownTokenIsNoErrorAndStillSaves) {
    std::filesystem::remove(dir_ + "/pairings.plist");
    ASSERT_TRUE(daemon_->unpair("not a token", kUser).ok());
    EXPECT_EQ(onDisk().size(), 3u);
}

TEST_F(UnpairTest, SaveFailurePassesThrough) {
    std::filesystem::remove_all(dir_);
    std::ofstream(dir_) << "now a file";
    const Status unpaired = daemon_->unpair(first_, kUser);
    ASSERT_FALSE(unpaired.ok());
    EXPECT_EQ(unpaired.error().domain, kPosixErrorDomain);
    EXPECT_FALSE(daemon_->isPaired(first_, kUser)) << "memory changed even though the file did not";
}

TEST_F(UnpairTest, UnpairAllNeedsTheRightAndLeavesPendingRequests) {
    const std::string id = *daemon_->beginPairing(kUser, 1);
    authorizer_->answer(Error{"x", 1, "refused"});
    EXPECT_EQ(codeOf(daemon_->unpairAll(kGrantedAuthorization, kApprover)), AdminError::authorizationFailed);
    EXPECT_EQ(onDisk().size(), 3u);

    authorizer_->answer({});
    ASSERT_TRUE(daemon_->unpairAll(kGrantedAuthorization, kOtherApprover).ok());
    EXPECT_TRUE(onDisk().empty());
    for (const auto& [token, uid] : {std::pair{first_, kUser}, {second_, kUser}, {others_, kOtherUser}}) {
        EXPECT_FALSE(daemon_->isPaired(token, uid));
    }
    EXPECT_EQ(idsOf(daemon_->pendingPairings(kUser)), std::vector<std::string>{id});
    EXPECT_EQ(logLines().back(), "all pairings removed");
    EXPECT_EQ(authorizer_->calls().back().peer, kOtherApprover);
}

class ServiceSwitchTest : public UnpairTest {
protected:
    void SetUp() override {
        UnpairTest::SetUp();
        preferences_->addService("ABC", {false, std::nullopt});
    }
};

TEST_F(ServiceSwitchTest, PairedTokenSwitchesTheServiceAndLogs) {
    ASSERT_TRUE(daemon_->setServiceEnabled("ABC", true, second_, kUser).ok());
    EXPECT_EQ(preferences_->enabled("ABC"), true);
    EXPECT_EQ(logLines().back(), "uid 501 set service ABC enabled=true");
    ASSERT_TRUE(daemon_->setServiceEnabled("ABC", false, second_, kUser).ok());
    EXPECT_EQ(logLines().back(), "uid 501 set service ABC enabled=false");
}

TEST_F(ServiceSwitchTest, UnpairedTokenNeverTouchesThePreferences) {
    for (const auto& [token, uid] : {std::pair<std::string, std::uint32_t>{"bogus", kUser}, {others_, kUser}}) {
        EXPECT_EQ(codeOf(daemon_->setServiceEnabled("ABC", true, token, uid)), AdminError::notPaired);
    }
    EXPECT_TRUE(preferences_->journal().empty());
    EXPECT_TRUE(logLines().empty());
}

TEST_F(ServiceSwitchTest, RefusalsPassThroughAndOnlyTheStoresReasonIsLogged) {
    EXPECT_EQ(codeOf(daemon_->setServiceEnabled("NOPE", true, first_, kUser)), AdminError::unknownService);
    EXPECT_TRUE(logLines().empty());
    preferences_->fail({.commit = true});
    const Status refused = daemon_->setServiceEnabled("ABC", true, first_, kUser);
    EXPECT_EQ(codeOf(refused), AdminError::configurationFailed);
    EXPECT_EQ(refused.error().message, "macOS refused the network configuration change") << "the wire's text is fixed";
    EXPECT_EQ(logLines(), (std::vector<std::string>{"uid 501 could not set service ABC: commit refused"}));

    // With the store refusing before the ID is looked at, a caller's text that
    // is no ID must not reach the log: it could forge lines of its own.
    preferences_->fail({.open = true});
    const std::string forged = "X: open refused\nuid 0 set service Y enabled=true";
    EXPECT_EQ(codeOf(daemon_->setServiceEnabled(forged, true, first_, kUser)), AdminError::configurationFailed);
    EXPECT_EQ(logLines().back(), "uid 501 could not set service (an implausible ID): open refused");
}

TEST_F(ServiceSwitchTest, NoPreferencesBackendIsAConfigurationFailure) {
    PairingStore store = PairingStore::open(dir_).value();
    const std::string token = *store.pair(kUser);
    auto daemon = std::make_shared<AdminDaemon>(std::move(store), "1", AdminDaemon::Backends{});
    EXPECT_EQ(codeOf(daemon->setServiceEnabled("ABC", true, token, kUser)), AdminError::configurationFailed);
}

// A waiter that, when called, checks the lock is free and then calls straight
// back into the daemon, as a transport's reply path may.
TEST_F(PairingWorkflow, WaitersRunOutsideTheLockAndMayCallBack) {
    std::vector<std::string> seen;
    auto reentrant = [&](const char* what) -> PairingReply {
        return [this, &seen, what](std::optional<std::string>, std::optional<Error>) {
            // Calling back under a held lock would hang the test instead of failing it.
            if (lockIsFree(*daemon_)) {
                daemon_->pendingPairings(kUser);
                seen.push_back(what);
            } else {
                ADD_FAILURE() << what << " ran under the daemon's lock";
            }
        };
    };
    const std::string superseded = *daemon_->beginPairing(kUser, 1);
    daemon_->awaitPairing(superseded, 1, reentrant("superseded"));
    const std::string approved = *daemon_->beginPairing(kUser, 1);
    daemon_->awaitPairing(approved, 1, reentrant("approved"));
    ASSERT_TRUE(daemon_->approvePairing(approved, kGrantedAuthorization, kApprover).ok());
    const std::string denied = *daemon_->beginPairing(kUser, 1);
    daemon_->awaitPairing(denied, 1, reentrant("denied"));
    ASSERT_TRUE(daemon_->denyPairing(denied, kUser).ok());
    daemon_->awaitPairing("UNKNOWN", 1, reentrant("unknown"));
    EXPECT_EQ(seen, (std::vector<std::string>{"superseded", "approved", "denied", "unknown"}));
}

// Dropping a waiter destroys whatever the transport captured in it; that
// must not happen under the lock either.
TEST_F(PairingWorkflow, DroppedWaitersAreReleasedOutsideTheLock) {
    struct Probe {
        std::function<bool()> lockIsFree;
        int* released;
        ~Probe() {
            EXPECT_TRUE(lockIsFree());
            ++*released;
        }
    };
    int released = 0;
    auto uncalledWaiter = [&] {
        auto probe = std::make_shared<Probe>([this] { return lockIsFree(*daemon_); }, &released);
        return [probe](std::optional<std::string>, std::optional<Error>) { ADD_FAILURE() << "must not be called"; };
    };
    const std::string id = *daemon_->beginPairing(kUser, 1);
    daemon_->awaitPairing(id, 1, uncalledWaiter());
    daemon_->awaitPairing(id, 1, uncalledWaiter());  // replaces the first
    EXPECT_EQ(released, 1);
    daemon_->sessionEnded(1);
    EXPECT_EQ(released, 2);
}

}  // namespace
}  // namespace netvane
