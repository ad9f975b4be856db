#include "netcore/sysconfig/pin_matcher.h"

#include <gtest/gtest.h>

namespace netvane {
namespace {

using Resolved = std::vector<std::optional<InterfaceFingerprint>>;

InterfaceFingerprint fp(std::string key, std::string name, std::optional<std::string> title = std::nullopt,
                        std::optional<std::string> address = std::nullopt, bool permanent = false) {
    return InterfaceFingerprint{std::move(key), std::move(name), std::move(title), std::move(address), permanent};
}

TEST(PinMatcher, EmptyInputs) {
    EXPECT_TRUE(PinMatcher::resolve({}, {fp("k", "en0")}).empty());
    EXPECT_EQ(PinMatcher::resolve({fp("a", "en0"), fp("b", "en1")}, {}), (Resolved{std::nullopt, std::nullopt}));
}

TEST(PinMatcher, ExactKeyWinsAndMayBeShared) {
    auto live = std::vector{fp("usb-1", "en5", "USB LAN"), fp("usb-1", "en6", "duplicate key")};
    auto resolved = PinMatcher::resolve({fp("usb-1", "en9"), fp("usb-1", "en0")}, live);
    EXPECT_EQ(resolved, (Resolved{live[0], live[0]})) << "first live interface with the key, for every such pin";
}

TEST(PinMatcher, LiveKeysOfPinsAreReservedWhateverThePinOrder) {
    // The first pin's fallback (by name en0) would pick the interface that the
    // second pin names exactly; the reservation keeps it for the second pin.
    auto live = std::vector{fp("wired", "en0"), fp("other", "en0")};
    auto resolved = PinMatcher::resolve({fp("gone", "en0"), fp("wired", "en7")}, live);
    EXPECT_EQ(resolved, (Resolved{live[1], live[0]}));
}

TEST(PinMatcher, EarlierPinsWinTheFallback) {
    auto live = std::vector{fp("new-1", "en3", "Dock", "aa:bb"), fp("new-2", "en4", "Dock", "cc:dd")};
    auto resolved = PinMatcher::resolve({fp("old-1", "en3", std::nullopt, "aa:bb"), fp("old-2", "en3")}, live);
    EXPECT_EQ(resolved, (Resolved{live[0], std::nullopt})) << "the second pin's only name match is taken";

    auto twice = PinMatcher::resolve({fp("old-1", "x", "Dock", "aa:bb"), fp("old-2", "en4", "Dock", "aa:bb")}, live);
    EXPECT_EQ(twice, (Resolved{live[0], live[1]})) << "address taken: falls through to title, then name";
}

TEST(PinMatcher, PermanentAddressesMatchOnlyByKey) {
    auto live = std::vector{fp("other-key", "en0", "Ethernet", "00:11", true), fp("soft", "en1", "Ethernet", "00:11")};
    auto resolved = PinMatcher::resolve({fp("gone", "en0", "Ethernet", "00:11", true)}, live);
    EXPECT_EQ(resolved, (Resolved{std::nullopt})) << "a permanent pin never falls back";

    auto fallback = PinMatcher::resolve({fp("gone", "en0", std::nullopt, "00:11")}, live);
    EXPECT_EQ(fallback, (Resolved{live[1]})) << "a permanent live interface is never a candidate";
}

TEST(PinMatcher, AddressBeforeTitleBeforeName) {
    auto live = std::vector{fp("1", "en0", "Wi-Fi"), fp("2", "en1", "Thunderbolt", "aa"), fp("3", "en2", "Wi-Fi")};
    EXPECT_EQ(PinMatcher::resolve({fp("p", "en0", "Wi-Fi", "aa")}, live), (Resolved{live[1]}));
    EXPECT_EQ(PinMatcher::resolve({fp("p", "en2", "Wi-Fi", "zz")}, live), (Resolved{live[2]}));
    EXPECT_EQ(PinMatcher::resolve({fp("p", "en1")}, live), (Resolved{live[1]}));
    EXPECT_EQ(PinMatcher::resolve({fp("p", "en9")}, live), (Resolved{std::nullopt}));
}

TEST(PinMatcher, TitleRules) {
    auto live = std::vector{fp("1", "en0", "Dock"), fp("2", "en1", "Dock"), fp("3", "en2", "USB")};
    EXPECT_EQ(PinMatcher::resolve({fp("p", "en5", "USB")}, live), (Resolved{live[2]})) << "unique title, any name";
    EXPECT_EQ(PinMatcher::resolve({fp("p", "en5", "Dock", "no-such")}, live), (Resolved{std::nullopt}))
        << "ambiguous title without the pin's name never resolves by position";
    EXPECT_EQ(PinMatcher::resolve({fp("p", "en1", "Dock")}, live), (Resolved{live[1]}));
    EXPECT_EQ(PinMatcher::resolve({fp("p", "en0", "Bluetooth")}, live), (Resolved{std::nullopt}))
        << "an unknown title does not fall back to the name";
}

TEST(PinMatcher, ComparisonsAreExactAndAbsentNeverMatches) {
    auto live = std::vector{fp("1", "EN0", "dock"), fp("2", "en1")};
    EXPECT_EQ(PinMatcher::resolve({fp("p", "en0", "Dock")}, live), (Resolved{std::nullopt}));
    EXPECT_EQ(PinMatcher::resolve({fp("p", "en0")}, live), (Resolved{std::nullopt}));
    EXPECT_EQ(PinMatcher::resolve({fp("p", "en3", std::nullopt, "aa")}, live), (Resolved{std::nullopt}))
        << "a candidate without an address does not equal the pin's";
}

}  // namespace
}  // namespace netvane
