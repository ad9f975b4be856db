#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <vector>

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

// A large file goes out in stretches sent on to the disk as they fill; pieces
// that end short of, exactly on and far past a stretch's end, and an empty
// one, must still land whole and in order.
TEST_F(FilesTest, LargeWriteFromManyPiecesLandsWhole) {
    const std::size_t mb = std::size_t{1} << 20;
    const std::size_t sizes[] = {5 * mb + 3, 0, 3 * mb - 3, 1, 19 * mb, 7};
    std::vector<std::uint8_t> expected;
    for (std::size_t i = 0; i < std::size(sizes); ++i) {
        for (std::size_t b = 0; b < sizes[i]; ++b) expected.push_back(static_cast<std::uint8_t>(i * 31 + b * 7 + b / 4093));
    }
    const std::string path = dir_ + "/large";
    std::size_t offset = 0;
    const Status written = writeFileAtomically(
        path,
        [&](const ByteSink& sink) -> Status {
            for (const std::size_t size : sizes) {
                if (auto status = sink(std::span(expected).subspan(offset, size)); !status.ok()) return status;
                offset += size;
            }
            return {};
        },
        0600, expected.size());
    ASSERT_TRUE(written.ok());
    auto bytes = readFile(path, 64 * mb);
    ASSERT_TRUE(bytes.ok());
    EXPECT_TRUE(*bytes == expected);  // not EXPECT_EQ: 27 MB would be printed on failure
    EXPECT_EQ(entries(), 1u);
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

// A file kept aside is never overwritten by the next one kept in the same
// second, keeps its bytes, and only narrows its mode when asked.
TEST_F(FilesTest, KeepAsideMovesTheFileOutOfTheWayAndNeverReplacesOne) {
    const std::string path = dir_ + "/pairings.plist";
    ASSERT_TRUE(writeFileAtomically(path, std::string_view("first"), 0644).ok());
    auto first = keepAside(path, mode_t{0600});
    ASSERT_TRUE(first.ok()) << first.error().message;
    EXPECT_TRUE(first->starts_with(path + ".unreadable-")) << *first;
    EXPECT_FALSE(fs::exists(path));

    ASSERT_TRUE(writeFileAtomically(path, std::string_view("second"), 0640).ok());
    auto second = keepAside(path);
    ASSERT_TRUE(second.ok()) << second.error().message;
    EXPECT_NE(*first, *second);
    auto firstBytes = readFile(*first), secondBytes = readFile(*second);
    ASSERT_TRUE(firstBytes.ok() && secondBytes.ok());
    EXPECT_EQ(std::string(firstBytes->begin(), firstBytes->end()), "first");
    EXPECT_EQ(std::string(secondBytes->begin(), secondBytes->end()), "second");
    struct stat info {};
    ASSERT_EQ(stat(first->c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    ASSERT_EQ(stat(second->c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);

    EXPECT_EQ(keepAside(path).error().code, ENOENT);
    ASSERT_EQ(symlink(first->c_str(), path.c_str()), 0);
    EXPECT_EQ(keepAside(path, mode_t{0600}).error().code, ELOOP) << "a symlink is never followed";
}

}  // namespace
}  // namespace netvane
