#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "tests/temporary_directory.h"

#include "daemon/pairing_store.h"
#include "support/base64.h"
#include "support/files.h"
#include "support/plist/plist.h"

namespace netvane {
namespace {

namespace fs = std::filesystem;

class PairingStoreTest : public ::testing::Test {
protected:
    testing::TemporaryDirectory temp_{"netvane-pairing"};

    void writeFile(const plist::Value& value) {
        ASSERT_TRUE(createDirectories(dir_, 0700).ok());
        ASSERT_TRUE(writeFileAtomically(dir_ + "/pairings.plist", *plist::encodeBinary(value)).ok());
    }

    const std::string root_ = temp_.path();
    const std::string dir_ = root_ + "/state/admin";
};

TEST_F(PairingStoreTest, PairReturnsTokenAndPersistsOnlyItsDigest) {
    PairingStore store = PairingStore::open(dir_).value();
    auto token = store.pair(501);
    ASSERT_TRUE(token.ok()) << token.error().message;
    EXPECT_EQ(token->size(), 44u);
    EXPECT_EQ(token->back(), '=');
    EXPECT_EQ(base64Decode(*token)->size(), 32u);
    EXPECT_TRUE(store.isPaired(*token, 501));

    const PairingStore loaded = PairingStore::load(dir_).value();
    ASSERT_EQ(loaded.pairings.size(), 1u);
    EXPECT_EQ(loaded.pairings, store.pairings);
    // The digest is of the Base64 text, not of the raw bytes.
    EXPECT_EQ(loaded.pairings[0].digest, PairingStore::digest(*token));
    EXPECT_TRUE(loaded.isPaired(*token, 501));

    auto bytes = readFile(dir_ + "/pairings.plist");
    ASSERT_TRUE(bytes.ok());
    EXPECT_TRUE(plist::isBinary(*bytes));
    const std::string text(bytes->begin(), bytes->end());
    EXPECT_EQ(text.find(*token), std::string::npos);
    auto root = plist::decode(*bytes);
    ASSERT_TRUE(root.ok());
    const plist::Dictionary& entry = *root->array()->at(0).dictionary();
    std::vector<std::string> keys;
    for (const auto& [key, value] : entry) keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{"digest", "uid", "created"}));
}

TEST_F(PairingStoreTest, TokensAreBoundToTheirUser) {
    PairingStore store = PairingStore::open(dir_).value();
    const std::string first = *store.pair(501);
    const std::string second = *store.pair(501);
    const std::string other = *store.pair(502);
    EXPECT_NE(first, second);
    EXPECT_TRUE(store.isPaired(first, 501));
    EXPECT_TRUE(store.isPaired(second, 501));
    EXPECT_FALSE(store.isPaired(other, 501));
    EXPECT_TRUE(store.isPaired(other, 502));
    EXPECT_FALSE(store.isPaired("", 501));
    EXPECT_FALSE(PairingStore::open(dir_).value().isPaired(first, 501)) << "an opened store is empty";
    EXPECT_EQ(PairingStore::load(dir_).value().pairings.size(), 3u);
}

TEST_F(PairingStoreTest, FileAndDirectoryModesAndOwner) {
    if (geteuid() != 0) GTEST_SKIP() << "giving the file to uid 0 needs root";
    const mode_t old = umask(0);
    PairingStore store = PairingStore::open(dir_).value();
    ASSERT_TRUE(store.pair(501).ok());
    umask(old);
    struct stat file {}, directory {};
    ASSERT_EQ(stat((dir_ + "/pairings.plist").c_str(), &file), 0);
    ASSERT_EQ(stat(dir_.c_str(), &directory), 0);
    EXPECT_EQ(file.st_mode & 07777, 0600u);
    EXPECT_EQ(file.st_uid, 0u);
    EXPECT_EQ(directory.st_mode & 07777, 0700u);
    EXPECT_EQ(fs::directory_iterator(dir_)->path().filename(), "pairings.plist") << "no temporary left";
}

TEST_F(PairingStoreTest, SaveFailureIsTheSystemErrorNamesTheFileAndKeepsThePairingInMemory) {
    // A regular file where the directory should be: the store cannot open.
    ASSERT_TRUE(createDirectories(root_ + "/state", 0700).ok());
    ASSERT_TRUE(writeFileAtomically(dir_, std::string_view("not a directory")).ok());
    auto blocked = PairingStore::open(dir_);
    ASSERT_FALSE(blocked.ok());
    EXPECT_EQ(blocked.error().code, ENOTDIR);
    fs::remove(dir_);

    PairingStore store = PairingStore::open(dir_).value();
    ASSERT_EQ(::rmdir(dir_.c_str()), 0);  // gone after start: never made again by a save
    auto token = store.pair(501);
    ASSERT_FALSE(token.ok());
    EXPECT_EQ(token.error().domain, kPosixErrorDomain);
    EXPECT_EQ(token.error().code, ENOENT);
    EXPECT_EQ(token.error().message,
              "save " + dir_ + "/pairings.plist (create temporary file): No such file or directory");
    EXPECT_EQ(store.pairings.size(), 1u);
    EXPECT_FALSE(fs::exists(dir_));
}

// Whatever a file holds that the store cannot use is kept, byte for byte,
// beside it (0600), and the store starts empty; the next save writes a new
// file and leaves the kept one alone.
TEST_F(PairingStoreTest, UnreadableFilesAreKeptAsideNeverOverwritten) {
    const plist::Value good = plist::Dictionary{{"digest", plist::Data(32)}, {"uid", 501}, {"created", Date{1}}};
    writeFile(plist::Array{good});
    std::optional<PairingStore::Unreadable> unreadable;
    ASSERT_EQ(PairingStore::load(dir_, &unreadable).value().pairings.size(), 1u);
    EXPECT_FALSE(unreadable);

    const auto entry = [](plist::Value digest, plist::Value uid) {
        return plist::Value(
            plist::Dictionary{{"digest", std::move(digest)}, {"uid", std::move(uid)}, {"created", Date{1}}});
    };
    std::vector<Bytes> variants;
    for (const plist::Value& value : {
             plist::Value(plist::Dictionary{{"pairings", plist::Array{good}}}),  // root not an array
             plist::Value(plist::Array{good, plist::Dictionary{{"digest", plist::Data(32)}, {"uid", 501}}}),
             plist::Value(plist::Array{entry("text", 501)}),
             plist::Value(plist::Array{entry(plist::Data(32), -1)}),
             plist::Value(plist::Array{entry(plist::Data(32), 1LL << 32)}),
             plist::Value(plist::Array{plist::Dictionary{{"digest", plist::Data(32)}, {"uid", 501}, {"created", 1.0}}}),
         }) {
        variants.push_back(*plist::encodeBinary(value));
    }
    const std::string truncated = "bplist00 truncated";
    variants.emplace_back(truncated.begin(), truncated.end());
    for (const Bytes& variant : variants) {
        fs::remove_all(dir_);
        ASSERT_TRUE(createDirectories(dir_, 0700).ok());
        ASSERT_TRUE(writeFileAtomically(dir_ + "/pairings.plist", variant, 0644).ok());
        unreadable.reset();
        PairingStore store = PairingStore::load(dir_, &unreadable).value();
        EXPECT_TRUE(store.pairings.empty());
        ASSERT_TRUE(unreadable);
        EXPECT_EQ(unreadable->file, dir_ + "/pairings.plist");
        EXPECT_TRUE(unreadable->keptAs.starts_with("pairings.plist.unreadable-")) << unreadable->keptAs;
        const std::string kept = dir_ + "/" + unreadable->keptAs;
        EXPECT_EQ(readFile(kept).value(), variant);
        struct stat info {};
        ASSERT_EQ(::stat(kept.c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 07777, 0600u);
        EXPECT_FALSE(fs::exists(dir_ + "/pairings.plist"));
        EXPECT_NE(unreadable->describe().find("kept aside as " + unreadable->keptAs), std::string::npos);

        ASSERT_TRUE(store.pair(501).ok());
        EXPECT_EQ(readFile(kept).value(), variant) << "the save wrote a file of its own";
    }
}

TEST_F(PairingStoreTest, OversizeAndSpecialFilesAreKeptAsideToo) {
    ASSERT_TRUE(createDirectories(dir_, 0700).ok());
    const std::string file = dir_ + "/pairings.plist";
    {
        const UniqueFd fd(::open(file.c_str(), O_WRONLY | O_CREAT, 0600));
        ASSERT_EQ(::ftruncate(fd.get(), off_t{65} << 20), 0);  // sparse: costs no disk
    }
    std::optional<PairingStore::Unreadable> unreadable;
    EXPECT_TRUE(PairingStore::load(dir_, &unreadable).value().pairings.empty());
    ASSERT_TRUE(unreadable);
    EXPECT_EQ(unreadable->problem.code, EFBIG);
    EXPECT_EQ(fs::file_size(dir_ + "/" + unreadable->keptAs), std::uintmax_t{65} << 20);

    ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);
    unreadable.reset();
    EXPECT_TRUE(PairingStore::load(dir_, &unreadable).value().pairings.empty()) << "and without blocking on the FIFO";
    ASSERT_TRUE(unreadable);
    EXPECT_TRUE(fs::is_fifo(dir_ + "/" + unreadable->keptAs));

    // What cannot be kept aside is not overwritten either: the store refuses to start.
    fs::create_directory(file);
    auto refused = PairingStore::load(dir_);
    ASSERT_FALSE(refused.ok());
    EXPECT_NE(refused.error().message.find("refusing to overwrite it"), std::string::npos) << refused.error().message;
    EXPECT_TRUE(fs::is_directory(file));

    fs::remove(file);
    EXPECT_TRUE(PairingStore::load(dir_ + "/new").value().pairings.empty()) << "a missing file is no problem";
    struct stat made {};
    ASSERT_EQ(::stat((dir_ + "/new").c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 07777, 0700u);
}

}  // namespace
}  // namespace netvane
