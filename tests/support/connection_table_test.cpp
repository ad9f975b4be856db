// Who gets a connection slot when the table is full: fairness that does not
// depend on how many uids one person holds, idle connections first, pinned
// ones never, and room for root.
#include "support/ipc/connection_table.h"

#include <gtest/gtest.h>

#include <map>

namespace netvane::ipc {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// Connections whose hold state the test sets.
class Table {
public:
    explicit Table(TableLimits limits) : table_(limits) {}

    ConnectionTable::Admission admit(uid_t uid, HoldState::Kind kind = HoldState::idle) {
        const ConnectionTable::Id id = next_++;
        states_[id] = HoldState{kind, Clock::time_point{} + std::chrono::seconds(id)};  // older ids idle longer
        uids_[id] = uid;
        auto admission = table_.admit(id, uid, [this, id] { return states_.at(id); });
        if (admission.admitted) last_ = id;
        return admission;
    }
    // Fills the table with `count` connections of `uid`, all admitted.
    void fill(uid_t uid, int count, HoldState::Kind kind = HoldState::idle) {
        for (int i = 0; i < count; ++i) ASSERT_TRUE(admit(uid, kind).admitted) << uid << " #" << i;
    }
    uid_t uidOf(ConnectionTable::Id id) const { return uids_.at(id); }
    void set(ConnectionTable::Id id, HoldState::Kind kind) { states_[id].kind = kind; }
    ConnectionTable& table() { return table_; }
    ConnectionTable::Id last() const { return last_; }

private:
    ConnectionTable table_;
    std::map<ConnectionTable::Id, HoldState> states_;
    std::map<ConnectionTable::Id, uid_t> uids_;
    ConnectionTable::Id next_ = 1, last_ = 0;
};

TEST(ConnectionTable, AFreshUidTakesTheOldestIdleSlotOfTheHeaviestHolder) {
    Table t({.capacity = 256, .reservedForRoot = 16, .drainingAllowance = 32});
    // Eight uids of one person hold every slot users may hold.
    for (uid_t uid = 61001; uid <= 61008; ++uid) t.fill(uid, 30);
    EXPECT_FALSE(t.admit(61001).admitted) << "a holder at its share takes no one's place";

    const auto fresh = t.admit(61009);
    ASSERT_TRUE(fresh.admitted) << fresh.reason;
    ASSERT_TRUE(fresh.displaced);
    EXPECT_TRUE(fresh.displacedWasIdle);
    EXPECT_EQ(*fresh.displaced, 1u) << "the oldest idle connection of a heaviest holder";
    EXPECT_EQ(t.table().heldBy(61001), 29u);
    EXPECT_EQ(t.table().heldBy(61009), 1u);

    // The newcomer keeps coming while it is below its share (240 / 9 = 26.6),
    // each time from whoever holds the most.
    for (int i = 1; i < 27; ++i) ASSERT_TRUE(t.admit(61009).admitted) << i;
    EXPECT_EQ(t.table().heldBy(61009), 27u);
    EXPECT_FALSE(t.admit(61009).admitted) << "at its fair share it stops";
    for (uid_t uid = 61001; uid <= 61008; ++uid) EXPECT_GE(t.table().heldBy(uid), 26u) << uid;

    // Root's reserve is untouched by all of this.
    for (int i = 0; i < 16; ++i) ASSERT_TRUE(t.admit(0).admitted) << i;
}

TEST(ConnectionTable, BusyConnectionsDrainPinnedOnesStay) {
    Table t({.capacity = 4, .reservedForRoot = 0, .drainingAllowance = 1});
    t.fill(61001, 2, HoldState::pinned);
    t.fill(61001, 2, HoldState::busy);
    const auto first = t.admit(61002);
    ASSERT_TRUE(first.admitted);
    ASSERT_TRUE(first.displaced);
    EXPECT_FALSE(first.displacedWasIdle) << "no idle connection: a busy one finishes its calls and goes";
    EXPECT_EQ(*first.displaced, 3u) << "the longest-held busy one, never a pinned one";
    EXPECT_EQ(t.table().size(), 5u) << "it still counts while it drains";

    const auto second = t.admit(61003);
    EXPECT_FALSE(second.admitted) << "past the draining allowance nobody more is drained";
    t.table().remove(*first.displaced);
    const auto third = t.admit(61003);
    ASSERT_TRUE(third.admitted) << third.reason;
    EXPECT_EQ(*third.displaced, 4u);
    t.table().remove(*third.displaced);

    // Only pinned connections are left above the share: nobody makes room.
    const auto fourth = t.admit(61004);
    EXPECT_FALSE(fourth.admitted);
    EXPECT_EQ(t.table().heldBy(61001), 2u);
}

TEST(ConnectionTable, RemovalFreesTheSlotAndRootUsesItsReserve) {
    Table t({.capacity = 3, .reservedForRoot = 1, .drainingAllowance = 4});
    t.fill(61001, 2);
    EXPECT_FALSE(t.admit(61001).admitted);
    ASSERT_TRUE(t.admit(0).admitted) << "the reserve is root's";
    const ConnectionTable::Id root = t.last();
    EXPECT_FALSE(t.admit(61001).admitted);
    t.table().remove(root);
    t.table().remove(root);  // a second removal changes nothing
    EXPECT_EQ(t.table().size(), 2u);
    const auto other = t.admit(61002);
    ASSERT_TRUE(other.admitted);
    EXPECT_TRUE(other.displaced) << "users share what the reserve leaves, fairly";
}

}  // namespace
}  // namespace netvane::ipc
