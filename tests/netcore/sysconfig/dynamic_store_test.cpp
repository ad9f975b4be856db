#include "netcore/sysconfig/dynamic_store.h"

#include <gtest/gtest.h>

#include <atomic>

namespace netvane {
namespace {

TEST(KeyMatcher, PatternsMatchWholeKeysAndPlainKeysExactly) {
    const KeyMatcher matcher({"State:/Network/Interface"},
                             {"State:/Network/Global/IPv[46]", "Setup:/Network/Service/[^/]+/Interface"});
    EXPECT_TRUE(matcher.matches("State:/Network/Interface"));
    EXPECT_FALSE(matcher.matches("State:/Network/Interface/en0/Link")) << "a plain key is no prefix";
    EXPECT_TRUE(matcher.matches("State:/Network/Global/IPv6"));
    EXPECT_FALSE(matcher.matches("State:/Network/Global/IPv4/Extra")) << "anchored at the end";
    EXPECT_FALSE(matcher.matches("X-State:/Network/Global/IPv4")) << "anchored at the start";
    EXPECT_TRUE(matcher.matches("Setup:/Network/Service/ABC/Interface"));
    EXPECT_FALSE(matcher.matches("Setup:/Network/Service/A/B/Interface"));
    EXPECT_FALSE(KeyMatcher({}, {"(unbalanced"}).matches("(unbalanced")) << "a broken pattern matches nothing";
    EXPECT_TRUE(KeyMatcher({}, {"a|State:.*"}).matches("State:/x")) << "alternatives apply to the whole key";
}

TEST(KeyMatcher, FamiliesAreSkippedOnlyWhenNoKeyUnderThemCanMatch) {
    const KeyMatcher services({}, {"Setup:/Network/Service/[^/]+/Interface"});
    EXPECT_TRUE(services.mayMatchUnder("Setup:/Network/Service/"));
    EXPECT_TRUE(services.mayMatchUnder("Setup:/"));
    EXPECT_FALSE(services.mayMatchUnder("State:/Network/Interface"));
    EXPECT_TRUE(KeyMatcher({}, {".*"}).mayMatchUnder("State:/Network/Interface"));
    EXPECT_TRUE(KeyMatcher({"State:/Network/Interface/en0/Link"}, {}).mayMatchUnder("State:/Network/Interface"));
    EXPECT_FALSE(KeyMatcher({"State:/Network/Interface"}, {}).mayMatchUnder("State:/Network/Interface/"));
    EXPECT_TRUE(KeyMatcher().empty());
}

TEST(KeyMatcher, LiteralPrefixStopsWhereTheRegularExpressionBegins) {
    EXPECT_EQ(literalPrefix("State:/Network/Global/IPv[46]"), "State:/Network/Global/IPv");
    EXPECT_EQ(literalPrefix("State:/Network/Interface/.*"), "State:/Network/Interface/");
    EXPECT_EQ(literalPrefix("Setup:/Network/Servicex?/"), "Setup:/Network/Service") << "an optional character is not part of it";
    EXPECT_EQ(literalPrefix("ab*c"), "a");
    EXPECT_EQ(literalPrefix("ab{0,2}"), "a");
    EXPECT_EQ(literalPrefix("ab+"), "ab");
    EXPECT_EQ(literalPrefix("a|b"), "");
    EXPECT_EQ(literalPrefix("^State"), "");
}

TEST(NotificationDelivery, OnlyTheCurrentAttachmentDelivers) {
    auto first = std::make_shared<SerialQueue>();
    auto second = std::make_shared<SerialQueue>();
    std::atomic<int> onFirst{0}, onSecond{0};
    auto delivery = std::make_shared<NotificationDelivery>([&](const plist::Value* keys) {
        ASSERT_NE(keys, nullptr);
        (first->isCurrent() ? onFirst : onSecond) += static_cast<int>(keys->array()->size());
    });
    delivery->post(plist::Array{"dropped: not attached"});
    delivery->attach(first);
    first->sync([&] {
        delivery->post(plist::Array{"a"});
        delivery->attach(second);  // the batch queued on `first` is stale now
        delivery->post(plist::Array{"b", "c"});
    });
    first->sync([] {});
    second->sync([] {});
    EXPECT_EQ(onFirst, 0);
    EXPECT_EQ(onSecond, 2);
    delivery->detach();
    EXPECT_FALSE(delivery->attached());
    delivery->post(plist::Array{"d"});
    second->sync([] {});
    EXPECT_EQ(onSecond, 2);
}

}  // namespace
}  // namespace netvane
