// Who holds a service's connection slots, and who gives one up when a
// newcomer finds them all taken. Transport-neutral: the socket server and an
// XPC listener both keep their connections here.
//
// Shares are per uid, but a person does not gain by holding many uids: when
// the table is full, a newcomer whose uid holds less than its fair share
// (the slots over the number of uids holding any, itself included) takes the
// place of a connection of the uid furthest above its share. The oldest idle
// connection of that uid goes first; failing that, one that is busy with
// calls is drained (read no further, closed once they are answered), and the
// newcomer is let in above the table by a bounded allowance meanwhile. A
// connection pinned by its session (a pending pairing request) is never
// displaced. Users other than root together leave `reservedForRoot` slots.
//
// Not thread-safe: its owner serialises calls. Probes are called during
// admit(), under whatever lock the owner holds then.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>

namespace netvane::ipc {

struct TableLimits {
    // Each connection holds a thread and a small buffer.
    std::size_t capacity = 256;
    // Users other than root together leave these free, so an administrator
    // can always get in to look.
    std::size_t reservedForRoot = 16;
    // Drained connections still count until their calls are answered; this
    // many may be over the table at once. Past it, a newcomer who would have
    // to drain someone is refused.
    std::size_t drainingAllowance = 32;
};

// What a held connection could give up right now.
struct HoldState {
    enum Kind { idle, busy, pinned } kind = idle;
    // idle: since when nothing has been outstanding; else unused.
    std::chrono::steady_clock::time_point since{};
};

class ConnectionTable {
public:
    using Id = std::uint64_t;
    using Probe = std::function<HoldState()>;

    struct Admission {
        bool admitted = false;
        // The connection that makes room. Its owner stops reading it and
        // closes it once the calls in hand are answered; it stays counted
        // (outside any uid's share) until removed.
        std::optional<Id> displaced;
        bool displacedWasIdle = false;
        // A few words on why a newcomer was refused, or who made room.
        const char* reason = "";
    };

    explicit ConnectionTable(TableLimits limits = {}) : limits_(limits) {}

    Admission admit(Id id, uid_t uid, Probe probe);
    void remove(Id id);

    std::size_t size() const { return entries_.size(); }
    std::size_t heldBy(uid_t uid) const;  // draining connections not counted

private:
    struct Entry {
        uid_t uid = 0;
        Probe probe;
        bool draining = false;
        std::uint64_t order = 0;  // admission order, the tie-breaker among the busy
    };

    std::optional<Id> idleVictim(uid_t uid) const;
    std::optional<Id> busyVictim(uid_t uid) const;

    TableLimits limits_;
    std::map<Id, Entry> entries_;
    std::map<uid_t, std::size_t> held_;  // live, not draining, per uid
    std::size_t draining_ = 0;
    std::uint64_t admitted_ = 0;
};

}  // namespace netvane::ipc
