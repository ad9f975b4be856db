#include "netcore/history/history_store.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "tests/temporary_directory.h"
#include <random>

#include "support/files.h"
#include "support/plist/plist.h"

namespace netvane {
namespace {

namespace fs = std::filesystem;

class HistoryStoreTest : public ::testing::Test {
protected:
    std::string path(const std::string& name) const { return (dir_ / name).string(); }

    testing::TemporaryDirectory temp_{"netvane-history"};
    const fs::path dir_ = temp_.path();
};

RateHistory randomHistory(std::mt19937_64& rng, int samples) {
    RateHistory history({3600, 7 * 86400, 365 * 86400});
    double t = std::uniform_real_distribution<double>(0, 7e8)(rng);
    for (int i = 0; i < samples; ++i) {
        t += std::uniform_real_distribution<double>(0.5, 90)(rng);
        // Totals up to 2^53 survive the double coding exactly.
        history.add(RateSample{Date{t}, std::uniform_real_distribution<double>(0.01, 90)(rng),
                               std::uniform_int_distribution<std::uint64_t>(0, std::uint64_t{1} << 40)(rng),
                               std::uniform_int_distribution<std::uint64_t>(0, 1000)(rng)});
    }
    return history;
}

TEST_F(HistoryStoreTest, SaveThenLoadGivesEqualHistories) {
    std::mt19937_64 rng(11);
    HistorySet histories;
    for (int i = 0; i < 12; ++i) histories["en" + std::to_string(i)] = randomHistory(rng, 1 + i * 97);
    histories["en3"].tiers.pop_back();  // any shape is stored as it is
    histories["en3"].tiers[0].buckets.push_back(Bucket{Date{5}, 1, 1, 1, 1, 1, 1, 1});
    HistoryStore store(path("history.plist"));
    ASSERT_TRUE(store.save(histories).ok());
    EXPECT_EQ(store.load(), histories);

    auto bytes = readFile(store.url);
    ASSERT_TRUE(bytes.ok());
    EXPECT_TRUE(plist::isBinary(*bytes));
}

TEST_F(HistoryStoreTest, HistoriesWithoutTrafficAreNotWritten) {
    HistorySet histories;
    histories["lo0"] = RateHistory({60, 60, 60});
    histories["lo0"].add(RateSample{Date{1}, 1, 0, 0});
    histories["en0"] = RateHistory({60, 60, 60});
    HistoryStore store(path("quiet.plist"));
    ASSERT_TRUE(store.save(histories).ok());
    auto document = plist::decode(*readFile(store.url));
    ASSERT_TRUE(document.ok());
    ASSERT_NE(document->dictionary(), nullptr);
    EXPECT_TRUE(document->dictionary()->empty());
    EXPECT_TRUE(store.load().empty());

    histories["en0"].add(RateSample{Date{2}, 1, 0, 1});
    ASSERT_TRUE(store.save(histories).ok());
    auto loaded = store.load();
    ASSERT_EQ(loaded.size(), 1u);
    EXPECT_EQ(loaded.begin()->first, "en0");
}

TEST_F(HistoryStoreTest, SaveCreatesMissingDirectories) {
    HistoryStore store(path("a/b/c/history.plist"));
    std::mt19937_64 rng(1);
    ASSERT_TRUE(store.save({{"en0", randomHistory(rng, 10)}}).ok());
    EXPECT_EQ(store.load().size(), 1u);
}

TEST_F(HistoryStoreTest, FailedEncodingLeavesNoDirectoryBehind) {
    HistoryStore store(path("a/b/history.plist"));
    std::mt19937_64 rng(2);
    // A key the binary format cannot carry.
    auto status = store.save({{"en0", randomHistory(rng, 3)}, {"\xFF", randomHistory(rng, 3)}});
    EXPECT_FALSE(status.ok());
    EXPECT_FALSE(fs::exists(path("a")));
}

TEST_F(HistoryStoreTest, UnreadableFilesLoadEmptyAndAreReplacedBySave) {
    HistoryStore store(path("history.plist"));
    EXPECT_TRUE(store.load().empty());
    EXPECT_FALSE(store.loadReportingErrors().ok()) << "missing file";

    std::mt19937_64 rng(5);
    std::vector<std::uint8_t> noise(4096);
    for (auto& byte : noise) byte = static_cast<std::uint8_t>(rng());
    ASSERT_TRUE(writeFileAtomically(store.url, noise).ok());
    EXPECT_TRUE(store.load().empty());
    EXPECT_EQ(*readFile(store.url), noise) << "a corrupt file is left as it is";

    ASSERT_TRUE(store.save({{"en0", randomHistory(rng, 3)}}).ok());
    EXPECT_EQ(store.load().size(), 1u);
}

// A bad read must never cost the user their history: asked to, the load keeps
// the bad file aside, where the next save cannot reach it.
TEST_F(HistoryStoreTest, UnreadableFilesAreKeptAsideWithTheReason) {
    HistoryStore store(path("history.plist"));
    std::mt19937_64 rng(21);
    const HistorySet saved{{"en0", randomHistory(rng, 50)}};
    ASSERT_TRUE(store.save(saved).ok());
    const Bytes whole = *readFile(store.url);
    Bytes noise(4096);
    for (auto& byte : noise) byte = static_cast<std::uint8_t>(rng());
    const Bytes truncated(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(whole.size() - 1));

    std::vector<std::string> kept;
    for (const Bytes& bad : {truncated, noise}) {
        ASSERT_TRUE(writeFileAtomically(store.url, bad).ok());
        const HistoryLoad loaded = store.load(UnreadableFile::keepAside);
        EXPECT_TRUE(loaded.histories.empty());
        ASSERT_TRUE(loaded.unreadable.has_value());
        EXPECT_NE(loaded.unreadable->message.find("malformed"), std::string::npos) << loaded.unreadable->message;
        ASSERT_TRUE(loaded.keptAs.has_value()) << loaded.keepAsideError->message;
        EXPECT_FALSE(loaded.keepAsideError.has_value());
        EXPECT_EQ(fs::path(*loaded.keptAs).parent_path(), dir_);
        EXPECT_TRUE(fs::path(*loaded.keptAs).filename().string().starts_with("history.plist.unreadable-"));
        EXPECT_EQ(*readFile(*loaded.keptAs), bad);
        EXPECT_FALSE(fs::exists(store.url));
        kept.push_back(*loaded.keptAs);

        ASSERT_TRUE(store.save(saved).ok());
        EXPECT_EQ(store.load(), saved);
    }
    ASSERT_NE(kept[0], kept[1]) << "a second bad file never replaces the first";
    EXPECT_EQ(*readFile(kept[0]), truncated);
    EXPECT_EQ(*readFile(kept[1]), noise);

    // Left where it is when the caller only reads.
    ASSERT_TRUE(writeFileAtomically(store.url, noise).ok());
    const HistoryLoad read = store.load(UnreadableFile::leave);
    EXPECT_TRUE(read.unreadable.has_value());
    EXPECT_FALSE(read.keptAs.has_value());
    EXPECT_EQ(*readFile(store.url), noise);
}

TEST_F(HistoryStoreTest, AMissingFileIsNoProblem) {
    for (const std::string& missing : {path("history.plist"), path("none/history.plist")}) {
        const HistoryLoad loaded = HistoryStore(missing).load(UnreadableFile::keepAside);
        EXPECT_EQ(loaded, HistoryLoad{}) << missing;
    }
    ASSERT_TRUE(writeFileAtomically(path("file"), std::string_view("x")).ok());
    EXPECT_EQ(HistoryStore(path("file/history.plist")).load(UnreadableFile::keepAside), HistoryLoad{})
        << "a file where a directory should be: there is no history file";
}

TEST_F(HistoryStoreTest, TotalsThatCannotBeSummedAreAnUnreadableFile) {
    HistoryStore store(path("history.plist"));
    std::mt19937_64 rng(22);
    HistorySet crafted{{"en0", randomHistory(rng, 3)}};
    crafted["en0"].tiers[0].buckets[0].bytesIn = std::uint64_t{1} << 63;
    crafted["en0"].tiers[0].buckets[1].bytesIn = std::uint64_t{1} << 63;
    ASSERT_TRUE(store.save(crafted).ok());
    const HistoryLoad loaded = store.load(UnreadableFile::keepAside);
    EXPECT_TRUE(loaded.histories.empty());
    ASSERT_TRUE(loaded.unreadable.has_value());
    EXPECT_NE(loaded.unreadable->message.find("history of \"en0\""), std::string::npos) << loaded.unreadable->message;
    EXPECT_NE(loaded.unreadable->message.find("64 bits"), std::string::npos) << loaded.unreadable->message;
    EXPECT_TRUE(loaded.keptAs.has_value());
}

// A directory where the file should be: nothing reads as a history, nothing
// in it is touched, and no save can replace it.
TEST_F(HistoryStoreTest, DirectoryInPlaceOfTheFile) {
    HistoryStore store(path("history.plist"));
    fs::create_directory(store.url);
    ASSERT_TRUE(writeFileAtomically(store.url + "/inside", std::string_view("kept")).ok());

    const HistoryLoad loaded = store.load(UnreadableFile::keepAside);
    EXPECT_TRUE(loaded.histories.empty());
    EXPECT_TRUE(loaded.unreadable.has_value());
    EXPECT_FALSE(loaded.keptAs.has_value());
    EXPECT_TRUE(loaded.keepAsideError.has_value()) << "only a file is kept aside";

    std::mt19937_64 rng(23);
    const Status saved = store.save({{"en0", randomHistory(rng, 5)}});
    ASSERT_FALSE(saved.ok());
    EXPECT_NE(saved.error().message.find(store.url), std::string::npos) << saved.error().message;
    EXPECT_TRUE(fs::is_directory(store.url));
    EXPECT_EQ(*readFile(store.url + "/inside"), Bytes({'k', 'e', 'p', 't'}));
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir_)) names.push_back(entry.path().filename().string());
    EXPECT_EQ(names, std::vector<std::string>{"history.plist"}) << "a temporary file was left behind";
}

TEST_F(HistoryStoreTest, ForeignShapesLoadEmpty) {
    HistoryStore store(path("history.plist"));
    auto write = [&](const plist::Value& document) {
        ASSERT_TRUE(writeFileAtomically(store.url, *plist::encodeBinary(document)).ok());
    };
    write(plist::Array{plist::Value("en0")});
    EXPECT_TRUE(store.load().empty());
    write(plist::Dictionary{{"en0", plist::Dictionary{{"tiers", "none"}}}});
    EXPECT_TRUE(store.load().empty());

    // One bad history spoils the file: loading half of it would look like data loss.
    std::mt19937_64 rng(8);
    plist::Dictionary mixed{{"en0", randomHistory(rng, 5).encode()}, {"en1", 42}};
    write(mixed);
    auto result = store.loadReportingErrors();
    ASSERT_FALSE(result.ok());
    EXPECT_NE(result.error().message.find("en1"), std::string::npos);
}

TEST_F(HistoryStoreTest, FailedSaveReportsAndKeepsThePreviousFile) {
    std::mt19937_64 rng(9);
    HistorySet first{{"en0", randomHistory(rng, 5)}};
    HistoryStore store(path("history.plist"));
    ASSERT_TRUE(store.save(first).ok());

    // A regular file where the parent directory should be.
    HistoryStore blocked(path("history.plist/inner.plist"));
    auto status = blocked.save(first);
    EXPECT_FALSE(status.ok());
    EXPECT_EQ(store.load(), first);
}

}  // namespace
}  // namespace netvane
