#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

#include "netcore/history/rate_history.h"

namespace netvane {
namespace {

plist::Value tierValue(plist::Value granularity, plist::Value retention, plist::Value buckets) {
    plist::Dictionary dict;
    dict.append("granularity", std::move(granularity));
    dict.append("retention", std::move(retention));
    dict.append("buckets", std::move(buckets));
    return dict;
}

plist::Data packed(std::initializer_list<double> doubles) {
    plist::Data data;
    for (double d : doubles) {
        std::uint64_t bits = std::bit_cast<std::uint64_t>(d);
        for (int i = 0; i < 8; ++i) data.push_back(static_cast<std::uint8_t>(bits >> (8 * i)));
    }
    return data;
}

TEST(TierCoding, TwoBucketsAre128LittleEndianBytes) {
    const std::uint64_t big = std::uint64_t{1} << 53;
    Tier tier{60, 3600, {Bucket{Date{120}, 59.5, big, 7, 1.5, 2.5, 0, 0.25}, Bucket{Date{180}, 1, 3, big - 1, 3, 3, 0, 0}}};
    plist::Value encoded = tier.encode();
    ASSERT_NE(encoded.dictionary(), nullptr);
    EXPECT_EQ(encoded.find("granularity")->real(), 60);
    EXPECT_EQ(encoded.find("retention")->real(), 3600);
    const plist::Data* data = encoded.find("buckets")->data();
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(*data, packed({120, 59.5, 9007199254740992.0, 7, 1.5, 2.5, 0, 0.25, 180, 1, 3, 9007199254740991.0, 3, 3, 0,
                             0}));

    auto decoded = Tier::decode(encoded);
    ASSERT_TRUE(decoded.ok()) << decoded.error().message;
    EXPECT_EQ(*decoded, tier);
}

TEST(TierCoding, IntegerGranularityAndRetentionAreAccepted) {
    auto decoded = Tier::decode(tierValue(3600, 86400, packed({})));
    ASSERT_TRUE(decoded.ok());
    EXPECT_EQ(decoded->granularity, 3600);
    EXPECT_EQ(decoded->retention, 86400);
}

TEST(TierCoding, MalformedTiersAreErrors) {
    auto fails = [](const plist::Value& value) {
        auto decoded = Tier::decode(value);
        if (decoded.ok()) return false;
        EXPECT_EQ(decoded.error().domain, kHistoryErrorDomain);
        return true;
    };
    const plist::Data one = packed({1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_FALSE(fails(tierValue(0.0, 1.0, one)));
    EXPECT_TRUE(fails(plist::Value(plist::Array{})));
    EXPECT_TRUE(fails(plist::Dictionary{{"granularity", 0.0}, {"retention", 1.0}}));
    EXPECT_TRUE(fails(plist::Dictionary{{"retention", 1.0}, {"buckets", one}}));
    EXPECT_TRUE(fails(tierValue("60", 1.0, one)));
    EXPECT_TRUE(fails(tierValue(0.0, 1.0, plist::Array{})));

    plist::Data ragged = one;
    ragged.push_back(0);
    EXPECT_TRUE(fails(tierValue(0.0, 1.0, ragged))) << "65 bytes";
    ragged.resize(64 + 56);
    EXPECT_TRUE(fails(tierValue(0.0, 1.0, ragged))) << "seven trailing doubles";
}

TEST(TierCoding, ByteTotalsOutside64BitsAreCorrupt) {
    auto decodeTotal = [](double total) { return Tier::decode(tierValue(0.0, 1.0, packed({1, 1, total, 0, 0, 0, 0, 0}))); };
    EXPECT_FALSE(decodeTotal(-1).ok());
    EXPECT_FALSE(decodeTotal(std::numeric_limits<double>::quiet_NaN()).ok());
    EXPECT_FALSE(decodeTotal(std::numeric_limits<double>::infinity()).ok());
    EXPECT_FALSE(decodeTotal(0x1p65).ok());
    EXPECT_EQ(decodeTotal(0x1p64)->buckets[0].bytesIn, std::numeric_limits<std::uint64_t>::max())
        << "what the largest totals round to when written";
    EXPECT_EQ(decodeTotal(12.9)->buckets[0].bytesIn, 12u);
    EXPECT_EQ(decodeTotal(-0.0)->buckets[0].bytesIn, 0u);
}

TEST(RateHistoryCoding, RoundTripKeepsTiersInOrder) {
    RateHistory history({300, 3600, 86400});
    for (int i = 0; i < 200; ++i) history.add(RateSample{Date{1000.0 + 7 * i}, 7, std::uint64_t(i) * 1000, 5});
    plist::Value encoded = history.encode();
    ASSERT_EQ(encoded.find("tiers")->array()->size(), 3u);
    auto decoded = RateHistory::decode(encoded);
    ASSERT_TRUE(decoded.ok());
    EXPECT_EQ(*decoded, history);
}

// A history's totals are summed by whoever reads it (an aggregate within one
// tier, a chart across tiers), and overflow while summing is fatal: a file
// whose totals cannot be summed is refused before anyone counts.
TEST(RateHistoryCoding, TotalsThatCannotBeSummedAreCorrupt) {
    constexpr double kHalf = 0x1p63;  // 2^63 bytes, exactly representable
    auto history = [](std::vector<std::pair<double, plist::Data>> tiers) {
        plist::Array encoded;
        for (auto& [granularity, buckets] : tiers) encoded.push_back(tierValue(granularity, 1e9, std::move(buckets)));
        return RateHistory::decode(plist::Dictionary{{"tiers", std::move(encoded)}});
    };
    auto bucket = [](double start, double in, double out) { return packed({start, 1, in, out, 0, 0, 0, 0}); };
    auto join = [](plist::Data a, const plist::Data& b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };

    for (const auto& refused : {
             history({{0, join(bucket(10, kHalf, 0), bucket(20, kHalf, 0))}}),  // in, one tier
             history({{0, join(bucket(10, 0, kHalf), bucket(20, 0, kHalf))}}),  // out, one tier
             history({{0, bucket(10, kHalf, 0)}, {3600, bucket(0, kHalf, 0)}}),  // across tiers
         }) {
        ASSERT_FALSE(refused.ok());
        EXPECT_EQ(refused.error().domain, kHistoryErrorDomain);
        EXPECT_NE(refused.error().message.find("64 bits"), std::string::npos) << refused.error().message;
    }

    // Just below the limit: accepted, and every period can be summed.
    const auto full = history({{0, join(bucket(10, kHalf, kHalf), bucket(20, kHalf / 2, kHalf / 2))},
                               {3600, bucket(3600, kHalf / 4, 0)}});
    ASSERT_TRUE(full.ok()) << full.error().message;
    const RateAggregate all = full->aggregate(1e9, Date{30});
    EXPECT_EQ(all.bytesIn, std::uint64_t{3} << 62);
    EXPECT_EQ(all.bytesOut, std::uint64_t{3} << 62);
}

TEST(RateHistoryCoding, ShapeErrorsPropagate) {
    EXPECT_FALSE(RateHistory::decode(plist::Dictionary{}).ok());
    EXPECT_FALSE(RateHistory::decode(plist::Dictionary{{"tiers", 1}}).ok());
    EXPECT_FALSE(RateHistory::decode(plist::Dictionary{{"tiers", plist::Array{plist::Value(1)}}}).ok());
    auto noTiers = RateHistory::decode(plist::Dictionary{{"tiers", plist::Array{}}});
    ASSERT_TRUE(noTiers.ok());
    EXPECT_TRUE(noTiers->tiers.empty());
}

}  // namespace
}  // namespace netvane
