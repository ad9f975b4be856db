#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "tests/temporary_directory.h"

#include "support/file_lock.h"
#include "support/files.h"

namespace netvane {
namespace {

namespace fs = std::filesystem;

class FileLockTest : public ::testing::Test {
protected:
    testing::TemporaryDirectory temp_{"netvane-lock"};
    const std::string dir_ = temp_.path();
};

// One holder at a time, whichever path names the file; the lock file stays
// when the holder lets go, and the next one takes it.
TEST_F(FileLockTest, OneHolderAtATimeWhateverThePath) {
    const std::string file = dir_ + "/history.plist";
    ASSERT_TRUE(writeFileAtomically(file, std::string_view("x")).ok());
    ASSERT_EQ(symlink("history.plist", (dir_ + "/alias.plist").c_str()), 0);
    {
        auto first = FileLock::tryLock(dir_ + "/alias.plist");
        ASSERT_TRUE(first.ok()) << first.error().message;
        EXPECT_EQ(first->path(), fs::canonical(dir_).string() + "/history.plist.lock");
        EXPECT_EQ(FileLock::holder(first->path()), getpid());

        auto second = FileLock::tryLock(file);
        ASSERT_FALSE(second.ok()) << "a second open of the lock file in the same process must be refused too";
        EXPECT_EQ(second.error().code, EWOULDBLOCK);
        EXPECT_NE(second.error().message.find("process " + std::to_string(getpid())), std::string::npos)
            << second.error().message;
    }
    EXPECT_TRUE(fs::exists(dir_ + "/history.plist.lock")) << "the lock file is never removed";
    EXPECT_TRUE(FileLock::tryLock(file).ok()) << "released when its holder is gone";
}

// Another process holds it: the refusal names that process, and the lock
// goes with it when it ends.
TEST_F(FileLockTest, AnotherProcessHoldsItUntilItEnds) {
    const std::string file = dir_ + "/history.plist";
    int ready[2], done[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(done), 0);
    const pid_t child = fork();
    if (child == 0) {
        auto held = FileLock::tryLock(file);
        char byte = held.ok() ? 'y' : 'n';
        (void)!write(ready[1], &byte, 1);
        (void)!read(done[0], &byte, 1);
        _exit(0);
    }
    char byte = 0;
    ASSERT_EQ(read(ready[0], &byte, 1), 1);
    ASSERT_EQ(byte, 'y');
    auto refused = FileLock::tryLock(file);
    ASSERT_FALSE(refused.ok());
    EXPECT_NE(refused.error().message.find("process " + std::to_string(child)), std::string::npos)
        << refused.error().message;
    (void)!write(done[1], "x", 1);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(FileLock::tryLock(file).ok());
    for (int fd : {ready[0], ready[1], done[0], done[1]}) close(fd);
}

// A lock file that is a link, or not a file, is not used; a pid that is not
// one is not reported.
TEST_F(FileLockTest, RefusesAStrangeLockFile) {
    ASSERT_EQ(symlink("/etc/passwd", (dir_ + "/a.lock").c_str()), 0);
    auto linked = FileLock::tryLock(dir_ + "/a");
    ASSERT_FALSE(linked.ok());
    EXPECT_EQ(linked.error().code, ELOOP);
    ASSERT_EQ(mkfifo((dir_ + "/b.lock").c_str(), 0600), 0);
    auto fifo = FileLock::tryLock(dir_ + "/b");
    ASSERT_FALSE(fifo.ok());
    EXPECT_EQ(fifo.error().code, EINVAL);

    for (const char* text : {"", "12", "12x\n", "-5\n", "0\n", "99999999999\n"}) {
        ASSERT_TRUE(writeFileAtomically(dir_ + "/c.lock", std::string_view(text)).ok());
        EXPECT_EQ(FileLock::holder(dir_ + "/c.lock"), std::nullopt) << text;
    }
    ASSERT_TRUE(writeFileAtomically(dir_ + "/c.lock", std::string_view("4321\n")).ok());
    EXPECT_EQ(FileLock::holder(dir_ + "/c.lock"), 4321);
}

}  // namespace
}  // namespace netvane
