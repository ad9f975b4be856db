// Files a privileged process reads or keeps on behalf of other users: the
// reads that must not be steered by symlinks or special files, the leftovers
// of interrupted saves, and the directories trusted to hold state.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

#include "tests/temporary_directory.h"

#include "support/files.h"
#include "support/open_regular.h"

namespace netvane {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

using Opener = std::function<Result<UniqueFd>(const std::string&)>;

class UntrustedOpenTest : public ::testing::TestWithParam<bool> {
protected:
    testing::TemporaryDirectory temp_{"netvane-untrusted"};
    const std::string dir_ = temp_.path();

    Result<UniqueFd> open(const std::string& path) const {
        return GetParam() ? openRegularNoSymlinks(path) : openRegularByComponents(path);
    }
    void write(const std::string& path, std::string_view text) const {
        ASSERT_TRUE(writeFileAtomically(path, text, 0600).ok());
    }
};

TEST_P(UntrustedOpenTest, OpensARegularFileAndNothingThatLeadsElsewhere) {
    write(dir_ + "/secret", "root only");
    fs::create_directories(dir_ + "/X.app/Contents");
    write(dir_ + "/X.app/Contents/Info.plist", "plain");
    ASSERT_TRUE(open(dir_ + "/X.app/Contents/Info.plist").ok());
    ASSERT_TRUE(open(dir_ + "//X.app/Contents//Info.plist").ok()) << "empty components are harmless";

    // The last component, and any directory on the way, as a symlink.
    fs::create_directories(dir_ + "/Y.app/Contents");
    fs::create_symlink(dir_ + "/secret", dir_ + "/Y.app/Contents/Info.plist");
    EXPECT_EQ(open(dir_ + "/Y.app/Contents/Info.plist").error().code, ELOOP);
    fs::create_directory_symlink(dir_ + "/X.app", dir_ + "/Z.app");
    EXPECT_EQ(open(dir_ + "/Z.app/Contents/Info.plist").error().code, ELOOP);
    fs::create_directory_symlink(dir_ + "/X.app/Contents", dir_ + "/W.app");
    EXPECT_EQ(open(dir_ + "/W.app/Info.plist").error().code, ELOOP);

    EXPECT_EQ(open(dir_ + "/X.app").error().code, EINVAL) << "a directory is not a file to read";
    EXPECT_EQ(open("relative/Info.plist").error().code, EINVAL);
    EXPECT_EQ(open(dir_ + "/missing").error().code, ENOENT);
}

// A FIFO with no writer would block an ordinary open for reading for ever:
// the test hangs (and times out) if one is attempted.
TEST_P(UntrustedOpenTest, FIFOIsRefusedWithoutBlocking) {
    ASSERT_EQ(::mkfifo((dir_ + "/Info.plist").c_str(), 0644), 0);
    EXPECT_EQ(open(dir_ + "/Info.plist").error().code, EINVAL);
    EXPECT_EQ(readUntrustedFile(dir_ + "/Info.plist", 1024, 1s).error().code, EINVAL);
}

INSTANTIATE_TEST_SUITE_P(PlatformAndPortable, UntrustedOpenTest, ::testing::Bool());

TEST(UntrustedRead, ReadsWithinTheCapOnly) {
    testing::TemporaryDirectory temp{"netvane-untrusted"};
    const std::string path = temp.path() + "/f";
    ASSERT_TRUE(writeFileAtomically(path, std::string_view("0123456789")).ok());
    EXPECT_EQ(readUntrustedFile(path, 10, 1s)->size(), 10u);
    EXPECT_EQ(readUntrustedFile(path, 9, 1s).error().code, EFBIG);
    EXPECT_EQ(readUntrustedFile(path, 10, -1ms).error().code, ETIMEDOUT);
    fs::create_symlink(path, temp.path() + "/link");
    EXPECT_EQ(readUntrustedFile(temp.path() + "/link", 10, 1s).error().code, ELOOP);
}

TEST(AtomicWriteLeftovers, OnlyOurOwnTemporariesOfThatFileGo) {
    testing::TemporaryDirectory temp{"netvane-leftovers"};
    const std::string dir = temp.path();
    const std::string target = dir + "/pairings.plist";
    ASSERT_TRUE(writeFileAtomically(target, std::string_view("current"), 0600).ok());
    for (const char* name : {"pairings.plist.Ab12Cd", "pairings.plist.zzzzzz"}) {
        ASSERT_TRUE(writeFileAtomically(dir + "/" + name, std::string_view("partial")).ok());
    }
    const std::vector<std::string> kept = {"pairings.plist.toolong7", "pairings.plist.ab-12c", "other.plist.Ab12Cd",
                                           "pairings.plistXAb12Cd", "pairings.plist.Qq11Ww", "pairings.plist.Ee22Rr"};
    for (std::size_t i = 0; i < 4; ++i) {
        ASSERT_TRUE(writeFileAtomically(dir + "/" + kept[i], std::string_view("x")).ok());
    }
    fs::create_symlink(target, dir + "/" + kept[4]);
    fs::create_directory(dir + "/" + kept[5]);

    ASSERT_TRUE(removeAtomicWriteLeftovers(target).ok());
    EXPECT_FALSE(fs::exists(dir + "/pairings.plist.Ab12Cd"));
    EXPECT_FALSE(fs::exists(dir + "/pairings.plist.zzzzzz"));
    EXPECT_TRUE(fs::exists(target));
    for (std::size_t i = 0; i < kept.size(); ++i) {
        EXPECT_TRUE(fs::symlink_status(dir + "/" + kept[i]).type() != fs::file_type::not_found) << kept[i];
    }
    EXPECT_TRUE(removeAtomicWriteLeftovers(dir + "/missing/pairings.plist").ok());
}

// A temporary of the right name that another user made is theirs, not a
// leftover of ours.
TEST(AtomicWriteLeftovers, AnotherUsersFileOfThatNameIsKept) {
    if (::geteuid() != 0) GTEST_SKIP() << "making a file of another user needs root";
    testing::TemporaryDirectory temp{"netvane-leftovers"};
    const std::string theirs = temp.path() + "/pairings.plist.Dd33Ff";
    ASSERT_TRUE(writeFileAtomically(theirs, std::string_view("another user's")).ok());
    ASSERT_EQ(::chown(theirs.c_str(), 65534, 65534), 0);
    ASSERT_TRUE(removeAtomicWriteLeftovers(temp.path() + "/pairings.plist").ok());
    EXPECT_TRUE(fs::exists(theirs));
}

TEST(AtomicWrite, OwnerAndModeAreSetBeforeTheNameAppears) {
    if (::geteuid() != 0) GTEST_SKIP() << "giving a file away needs root";
    testing::TemporaryDirectory temp{"netvane-owner"};
    const std::string path = temp.path() + "/f";
    const std::string data = "x";
    ASSERT_TRUE(writeFileAtomically(path, std::span(reinterpret_cast<const std::uint8_t*>(data.data()), 1), 0640,
                                    FileOwner{65534, 65534})
                    .ok());
    struct stat info {};
    ASSERT_EQ(::lstat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, 65534u);
    EXPECT_EQ(info.st_gid, 65534u);
    EXPECT_EQ(info.st_mode & 07777, 0640u);
}

TEST(TrustedDirectory, RefusesWhatAnotherUserCouldChange) {
    testing::TemporaryDirectory temp{"netvane-trusted"};
    const std::string dir = temp.path();
    ASSERT_EQ(::chmod(dir.c_str(), 0755), 0);
    fs::create_directory(dir + "/state");
    ASSERT_EQ(::chmod((dir + "/state").c_str(), 0700), 0);
    EXPECT_TRUE(checkTrustedDirectory(dir + "/state").ok()) << "/tmp above is sticky: fine";
    EXPECT_TRUE(checkTrustedDirectory(dir + "/state/").ok());

    ASSERT_EQ(::chmod((dir + "/state").c_str(), 0770), 0);
    EXPECT_EQ(checkTrustedDirectory(dir + "/state").error().code, EPERM);
    ASSERT_EQ(::chmod((dir + "/state").c_str(), 01777), 0);
    EXPECT_EQ(checkTrustedDirectory(dir + "/state").error().code, EPERM) << "sticky helps ancestors only";
    ASSERT_EQ(::chmod((dir + "/state").c_str(), 0700), 0);

    ASSERT_EQ(::chmod(dir.c_str(), 0777), 0);
    EXPECT_EQ(checkTrustedDirectory(dir + "/state").error().code, EPERM) << "an ancestor others may rename in";
    ASSERT_EQ(::chmod(dir.c_str(), 0755), 0);

    fs::create_directory_symlink(dir + "/state", dir + "/link");
    EXPECT_EQ(checkTrustedDirectory(dir + "/link").error().code, EPERM);
    EXPECT_EQ(checkTrustedDirectory(dir + "/link/").error().code, EPERM);
    EXPECT_EQ(checkTrustedDirectory(dir + "/missing").error().code, ENOENT);
}

TEST(TrustedDirectory, RefusesADirectoryOfAnotherUser) {
    if (::geteuid() != 0) GTEST_SKIP() << "giving a directory to another user needs root";
    testing::TemporaryDirectory temp{"netvane-trusted"};
    const std::string state = temp.path() + "/state";
    fs::create_directory(state);
    ASSERT_EQ(::chmod(state.c_str(), 0700), 0);
    EXPECT_TRUE(checkTrustedDirectory(state).ok());
    ASSERT_EQ(::chown(state.c_str(), 65534, 65534), 0);
    EXPECT_EQ(checkTrustedDirectory(state).error().code, EPERM);
}

}  // namespace
}  // namespace netvane
