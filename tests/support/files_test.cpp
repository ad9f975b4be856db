#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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

std::string contents(const std::string& path) {
    auto bytes = readFile(path);
    return bytes ? std::string(bytes->begin(), bytes->end()) : "(unreadable: " + bytes.error().message + ")";
}

// A new file gets the mode asked for; a file that is replaced keeps its own
// mode, owner and group, whatever mode the writer asks for.
TEST_F(FilesTest, AtomicWriteGivesANewFileItsModeAndAReplacedOneKeepsItsOwn) {
    const std::string path = dir_ + "/f";
    ASSERT_TRUE(writeFileAtomically(path, std::string_view("first"), 0600).ok());
    struct stat info {};
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);

    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    const bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(chown(path.c_str(), 4321, 8765), 0);
    }
    ASSERT_TRUE(writeFileAtomically(path, std::string_view("second"), 0644).ok());
    EXPECT_EQ(contents(path), "second");
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
    if (root) {
        EXPECT_EQ(info.st_uid, 4321u);
        EXPECT_EQ(info.st_gid, 8765u);
    }
    EXPECT_EQ(entries(), 1u) << "no temporary file may remain";
}

// Only root can give a file to another user; anyone else is refused before
// the old file changes, rather than left with a file of the wrong owner.
TEST_F(FilesTest, AtomicWriteRefusesWhenTheOwnerCannotBeKept) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make a file of another owner";
    const std::string path = dir_ + "/theirs";
    ASSERT_TRUE(writeFileAtomically(path, std::string_view("theirs"), 0666).ok());
    ASSERT_EQ(chown(path.c_str(), 4321, 4321), 0);
    ASSERT_EQ(chmod(dir_.c_str(), 0777), 0);
    const pid_t child = fork();
    if (child == 0) {
        const bool dropped = setgid(5555) == 0 && setuid(5555) == 0;
        const Status written = writeFileAtomically(path, std::string_view("mine"), 0644);
        _exit(dropped && !written.ok() && written.error().code == EPERM ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the write was not refused with EPERM";
    EXPECT_EQ(contents(path), "theirs");
    EXPECT_EQ(entries(), 1u);
}

// A link is written through: the file it names is replaced (keeping its
// mode) and the link stays a link; a link to nothing is refused.
TEST_F(FilesTest, AtomicWriteFollowsALinkAndRefusesOneToNothing) {
    fs::create_directory(dir_ + "/real");
    const std::string target = dir_ + "/real/data";
    ASSERT_TRUE(writeFileAtomically(target, std::string_view("old"), 0600).ok());
    ASSERT_EQ(symlink("real/data", (dir_ + "/link").c_str()), 0);
    ASSERT_TRUE(writeFileAtomically(dir_ + "/link", std::string_view("new"), 0644).ok());
    EXPECT_TRUE(fs::is_symlink(dir_ + "/link"));
    EXPECT_EQ(contents(target), "new");
    struct stat info {};
    ASSERT_EQ(stat(target.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_ + "/real"), {}), 1) << "no temporary file may remain";

    ASSERT_EQ(symlink("nowhere", (dir_ + "/dangling").c_str()), 0);
    const Status dangling = writeFileAtomically(dir_ + "/dangling", std::string_view("x"));
    ASSERT_FALSE(dangling.ok());
    EXPECT_EQ(dangling.error().code, ENOENT);
    EXPECT_FALSE(fs::exists(dir_ + "/nowhere"));

    const Status privileged = writeFileAtomically(dir_ + "/link", std::span<const std::uint8_t>(), 0600, FileOwner{
        geteuid(), getegid()});
    ASSERT_FALSE(privileged.ok()) << "a writer that names the owner follows no link";
    EXPECT_EQ(privileged.error().code, ELOOP);
    EXPECT_EQ(contents(target), "new");
}

// What is not a regular file is never replaced: refused before anything is
// written.
TEST_F(FilesTest, AtomicWriteRefusesWhatIsNotARegularFile) {
    const std::string fifo = dir_ + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const Status toFifo = writeFileAtomically(fifo, std::string_view("x"));
    ASSERT_FALSE(toFifo.ok());
    EXPECT_EQ(toFifo.error().code, EINVAL);
    EXPECT_TRUE(fs::is_fifo(fifo));
    EXPECT_EQ(entries(), 1u);
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
    const std::string path = dir_ + "/d";
    fs::create_directory(path);
    fs::create_directory(path + "/keep");
    auto status = writeFileAtomically(path, std::string_view("data"));
    ASSERT_FALSE(status.ok());
    EXPECT_EQ(status.error().domain, kPosixErrorDomain);
    EXPECT_EQ(status.error().code, EISDIR);
    EXPECT_TRUE(fs::is_directory(path + "/keep"));
    EXPECT_EQ(entries(), 1u);

    // The producer fails after some bytes went out: the temporary goes too.
    const Status failed = writeFileAtomically(dir_ + "/f", [](const ByteSink& sink) -> Status {
        if (auto written = sink(std::vector<std::uint8_t>(100, 'x')); !written.ok()) return written;
        return Error{kPosixErrorDomain, EIO, "producer failed"};
    });
    ASSERT_FALSE(failed.ok());
    EXPECT_EQ(failed.error().code, EIO);
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
