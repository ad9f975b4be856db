#include "netcore/sysconfig/pin_matcher.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <unordered_set>

namespace netvane::PinMatcher {
namespace {

using Candidates = std::vector<const InterfaceFingerprint*>;

const InterfaceFingerprint* fallback(const InterfaceFingerprint& pin, const Candidates& candidates) {
    auto first = [&](auto&& predicate) -> const InterfaceFingerprint* {
        auto it = std::find_if(candidates.begin(), candidates.end(), [&](const auto* c) { return predicate(*c); });
        return it == candidates.end() ? nullptr : *it;
    };
    if (pin.address) {
        if (auto* match = first([&](const InterfaceFingerprint& c) { return c.address == pin.address; })) return match;
    }
    if (!pin.title) {
        return first([&](const InterfaceFingerprint& c) { return c.name == pin.name; });
    }
    Candidates sameTitle;
    std::copy_if(candidates.begin(), candidates.end(), std::back_inserter(sameTitle),
                 [&](const auto* c) { return c->title == pin.title; });
    if (sameTitle.size() == 1) return sameTitle.front();
    // An ambiguous title resolves only by name, never by position.
    auto named = std::find_if(sameTitle.begin(), sameTitle.end(), [&](const auto* c) { return c->name == pin.name; });
    return named == sameTitle.end() ? nullptr : *named;
}

}  // namespace

std::vector<std::optional<InterfaceFingerprint>> resolve(const std::vector<InterfaceFingerprint>& pins,
                                                         const std::vector<InterfaceFingerprint>& live) {
    // Live interfaces that some pin names exactly are reserved for that pin
    // from the start, whatever the order of the pins.
    std::unordered_set<std::string> pinKeys;
    for (const auto& pin : pins) pinKeys.insert(pin.key);
    std::unordered_set<std::string> claimed;
    for (const auto& interface : live) {
        if (pinKeys.contains(interface.key)) claimed.insert(interface.key);
    }

    std::vector<std::optional<InterfaceFingerprint>> results;
    results.reserve(pins.size());
    for (const auto& pin : pins) {
        auto exact = std::find_if(live.begin(), live.end(), [&](const auto& l) { return l.key == pin.key; });
        if (exact != live.end()) {
            results.emplace_back(*exact);
            continue;
        }
        // Known by a permanent address: present under its key or absent.
        if (pin.permanentAddress) {
            results.emplace_back();
            continue;
        }
        Candidates candidates;
        for (const auto& interface : live) {
            if (!claimed.contains(interface.key) && !interface.permanentAddress) candidates.push_back(&interface);
        }
        const InterfaceFingerprint* match = fallback(pin, candidates);
        if (match) {
            claimed.insert(match->key);  // earlier pins win the fallback
            results.emplace_back(*match);
        } else {
            results.emplace_back();
        }
    }
    return results;
}

}  // namespace netvane::PinMatcher
