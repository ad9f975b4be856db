#include "support/ipc/connection_table.h"

#include <algorithm>
#include <vector>

namespace netvane::ipc {

std::size_t ConnectionTable::heldBy(uid_t uid) const {
    const auto it = held_.find(uid);
    return it == held_.end() ? 0 : it->second;
}

std::optional<ConnectionTable::Id> ConnectionTable::idleVictim(uid_t uid) const {
    std::optional<Id> oldest;
    std::chrono::steady_clock::time_point since{};
    for (const auto& [id, entry] : entries_) {
        if (entry.uid != uid || entry.draining) continue;
        const HoldState state = entry.probe();
        if (state.kind != HoldState::idle) continue;
        if (!oldest || state.since < since) {
            oldest = id;
            since = state.since;
        }
    }
    return oldest;
}

std::optional<ConnectionTable::Id> ConnectionTable::busyVictim(uid_t uid) const {
    std::optional<Id> earliest;
    std::uint64_t order = 0;
    for (const auto& [id, entry] : entries_) {
        if (entry.uid != uid || entry.draining || entry.probe().kind == HoldState::pinned) continue;
        if (!earliest || entry.order < order) {
            earliest = id;
            order = entry.order;
        }
    }
    return earliest;
}

ConnectionTable::Admission ConnectionTable::admit(Id id, uid_t uid, Probe probe) {
    std::size_t live = 0;
    for (const auto& [holder, count] : held_) live += count;
    const std::size_t root = heldBy(0);
    const bool forRoot = uid == 0;
    // Root may use every slot; the others share what root's reserve leaves.
    const std::size_t pool =
        forRoot ? limits_.capacity : limits_.capacity - std::min(limits_.reservedForRoot, limits_.capacity);
    const std::size_t used = forRoot ? live : live - root;
    Admission admission;
    const auto insert = [&] {
        entries_[id] = Entry{uid, std::move(probe), false, admitted_++};
        ++held_[uid];
        admission.admitted = true;
    };
    if (live < limits_.capacity && used < pool) {
        insert();
        return admission;
    }

    // Full for this uid: it may take a slot only while below its fair share,
    // and only from a uid above it, the heaviest first.
    std::vector<std::pair<std::size_t, uid_t>> heavier;
    std::size_t holders = held_.count(uid) ? 0 : 1;
    for (const auto& [holder, count] : held_) {
        if (!forRoot && holder == 0) continue;
        ++holders;
        heavier.emplace_back(count, holder);
    }
    const double fairShare = static_cast<double>(pool) / static_cast<double>(holders);
    if (static_cast<double>(heldBy(uid)) >= fairShare) {
        admission.reason = "its fair share of the connections is taken";
        return admission;
    }
    std::erase_if(heavier, [&](const auto& entry) {
        return entry.second == uid || static_cast<double>(entry.first) <= fairShare;
    });
    std::stable_sort(heavier.begin(), heavier.end(), [](const auto& a, const auto& b) { return a.first > b.first; });

    const auto displace = [&](Id victim, bool idle) {
        Entry& entry = entries_.at(victim);
        entry.draining = true;
        if (--held_[entry.uid] == 0) held_.erase(entry.uid);
        ++draining_;
        admission.displaced = victim;
        admission.displacedWasIdle = idle;
        insert();
    };
    for (const auto& [count, holder] : heavier) {
        if (auto victim = idleVictim(holder)) {
            displace(*victim, true);
            admission.reason = "took the place of an idle connection of a heavier user";
            return admission;
        }
    }
    if (draining_ >= limits_.drainingAllowance) {
        admission.reason = "too many displaced connections are still finishing their calls";
        return admission;
    }
    for (const auto& [count, holder] : heavier) {
        if (auto victim = busyVictim(holder)) {
            displace(*victim, false);
            admission.reason = "took the place of a busy connection of a heavier user, which finishes its calls first";
            return admission;
        }
    }
    admission.reason = "every connection above its fair share is pinned by a pending request";
    return admission;
}

void ConnectionTable::remove(Id id) {
    const auto it = entries_.find(id);
    if (it == entries_.end()) return;
    if (it->second.draining) {
        --draining_;
    } else if (auto held = held_.find(it->second.uid); held != held_.end() && --held->second == 0) {
        held_.erase(held);
    }
    entries_.erase(it);
}

}  // namespace netvane::ipc
