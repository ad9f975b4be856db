#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "tests/temporary_directory.h"

#include "support/files.h"

namespace netvane {
namespace {

namespace fs = std::filesystem;

class FilesTest : public ::testing::Test {
protected:
    testing::TemporaryDirectory temp_{"netvane-files"};

    std::size_t entries() const { return static_cast<std::size_t>(std::distance(fs::directory_iterator(dir_), {})); }

    const std::string dir_ = temp_.path();
};

TEST_F(FilesTest, AtomicWriteReplacesContentAndSetsMode) {
    const std::string path = dir_ + "/f";
    ASSERT_TRUE(writeFileAtomically(path, std::string_view("first"), 0600).ok());
    ASSERT_TRUE(writeFileAtomically(path, std::string_view("second"), 0640).ok());
    auto bytes = readFile(path);
    ASSERT_TRUE(bytes.ok());
    EXPECT_EQ(std::string(bytes->begin(), bytes->end()), "second");
    struct stat info {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
    EXPECT_EQ(entries(), 1u) << "no temporary file may remain";
}

TEST_F(FilesTest, FailedWriteLeavesNothingBehind) {
    // The target is a directory, so the final rename fails after the data was written.
    const std::string path = dir_ + "/d";
    fs::create_directory(path);
    fs::create_directory(path + "/keep");
    auto status = writeFileAtomically(path, std::string_view("data"));
    ASSERT_FALSE(status.ok());
    EXPECT_EQ(status.error().domain, kPosixErrorDomain);
    EXPECT_TRUE(fs::is_directory(path + "/keep"));
    EXPECT_EQ(entries(), 1u);

    auto missing = writeFileAtomically(dir_ + "/no/such/dir/f", std::string_view("x"));
    ASSERT_FALSE(missing.ok());
    EXPECT_EQ(missing.error().code, ENOENT);
}

TEST_F(FilesTest, CreateDirectoriesAppliesModeDespiteUmask) {
    const mode_t old = umask(022);
    const std::string path = dir_ + "/a/b/c";
    ASSERT_TRUE(createDirectories(path, 0700).ok());
    umask(old);
    struct stat info {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0700u);
    EXPECT_TRUE(createDirectories(path, 0700).ok()) << "an existing directory is accepted";
    ASSERT_TRUE(writeFileAtomically(dir_ + "/file", std::string_view("x")).ok());
    EXPECT_EQ(createDirectories(dir_ + "/file", 0700).error().code, ENOTDIR);
}

TEST_F(FilesTest, ReadFileReportsSystemErrors) {
    auto missing = readFile(dir_ + "/missing");
    ASSERT_FALSE(missing.ok());
    EXPECT_EQ(missing.error(), (Error{kPosixErrorDomain, ENOENT, "open " + dir_ + "/missing: No such file or directory"}));
    ASSERT_TRUE(writeFileAtomically(dir_ + "/big", std::string_view("0123456789")).ok());
    EXPECT_EQ(readFile(dir_ + "/big", 9).error().code, EFBIG);
    EXPECT_EQ(readFile(dir_ + "/big", 10)->size(), 10u);
    EXPECT_EQ(readFile(dir_).error().code, EINVAL);
}

}  // namespace
}  // namespace netvane
