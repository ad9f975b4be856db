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
    PairingStore store(dir_);
    auto token = store.pair(501);
    ASSERT_TRUE(token.ok()) << token.error().message;
    EXPECT_EQ(token->size(), 44u);
    EXPECT_EQ(token->back(), '=');
    EXPECT_EQ(base64Decode(*token)->size(), 32u);
    EXPECT_TRUE(store.isPaired(*token, 501));

    const PairingStore loaded = PairingStore::load(dir_);
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
    PairingStore store(dir_);
    const std::string first = *store.pair(501);
    const std::string second = *store.pair(501);
    const std::string other = *store.pair(502);
    EXPECT_NE(first, second);
    EXPECT_TRUE(store.isPaired(first, 501));
    EXPECT_TRUE(store.isPaired(second, 501));
    EXPECT_FALSE(store.isPaired(other, 501));
    EXPECT_TRUE(store.isPaired(other, 502));
    EXPECT_FALSE(store.isPaired("", 501));
    EXPECT_FALSE(PairingStore(dir_).isPaired(first, 501)) << "an empty store pairs nobody";
    EXPECT_EQ(PairingStore::load(dir_).pairings.size(), 3u);
}

TEST_F(PairingStoreTest, FileAndDirectoryModesAndOwner) {
    if (geteuid() != 0) GTEST_SKIP() << "giving the file to uid 0 needs root";
    const mode_t old = umask(0);
    PairingStore store(dir_);
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

TEST_F(PairingStoreTest, SaveFailureIsTheSystemErrorAndKeepsThePairingInMemory) {
    // A regular file where the directory should be.
    ASSERT_TRUE(createDirectories(root_ + "/state", 0700).ok());
    ASSERT_TRUE(writeFileAtomically(dir_, std::string_view("not a directory")).ok());
    PairingStore store(dir_);
    auto token = store.pair(501);
    ASSERT_FALSE(token.ok());
    EXPECT_EQ(token.error().domain, kPosixErrorDomain);
    EXPECT_EQ(token.error().code, ENOTDIR);
    EXPECT_EQ(store.pairings.size(), 1u);
}

TEST_F(PairingStoreTest, UnusableFilesLoadAsEmpty) {
    const plist::Value good = plist::Dictionary{{"digest", plist::Data(32)}, {"uid", 501}, {"created", Date{1}}};
    writeFile(plist::Array{good});
    ASSERT_EQ(PairingStore::load(dir_).pairings.size(), 1u);

    const plist::Value variants[] = {
        plist::Dictionary{{"pairings", plist::Array{good}}},  // root not an array
        plist::Array{good, plist::Dictionary{{"digest", plist::Data(32)}, {"uid", 501}}},  // lacks "created"
        plist::Array{plist::Dictionary{{"digest", "text"}, {"uid", 501}, {"created", Date{1}}}},
        plist::Array{plist::Dictionary{{"digest", plist::Data(32)}, {"uid", -1}, {"created", Date{1}}}},
        plist::Array{plist::Dictionary{{"digest", plist::Data(32)}, {"uid", 1LL << 32}, {"created", Date{1}}}},
        plist::Array{plist::Dictionary{{"digest", plist::Data(32)}, {"uid", 501}, {"created", 1.0}}},
    };
    for (const auto& variant : variants) {
        writeFile(variant);
        EXPECT_TRUE(PairingStore::load(dir_).pairings.empty());
    }
    ASSERT_TRUE(writeFileAtomically(dir_ + "/pairings.plist", std::string_view("bplist00 truncated")).ok());
    EXPECT_TRUE(PairingStore::load(dir_).pairings.empty());
    EXPECT_TRUE(PairingStore::load(root_ + "/missing").pairings.empty());
    EXPECT_FALSE(fs::exists(root_ + "/missing")) << "loading never writes";
}

}  // namespace
}  // namespace netvane
