// The history store under real faults: a full file system, a read-only one,
// and I/O errors injected into write, fsync and rename (libfiu's fiu-run
// around a program that saves). Whatever fails, the save says which file and
// why, the previous file stays byte for byte, and no temporary file is left.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string_view>
#include <vector>

#include "netcore/history/history_store.h"
#include "support/files.h"
#include "tests/temporary_directory.h"

extern char** environ;

namespace netvane {
namespace {

namespace fs = std::filesystem;

HistorySet historyOf(int samples, std::uint64_t seed) {
    std::mt19937_64 rng(seed);
    RateHistory history({1e9, 1e9, 1e9});
    for (int i = 0; i < samples; ++i) {
        history.add(RateSample{Date{1000.0 + 30 * i}, 30, rng() >> 20, rng() >> 30});
    }
    return {{"en0", history}};
}

std::vector<std::string> namesIn(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

class HistoryStoreFaultTest : public ::testing::Test {
protected:
    // The previous file: what every failed save must leave exactly as it is.
    void savePrevious(const std::string& directory) {
        store_ = HistoryStore(directory + "/history.plist");
        ASSERT_TRUE(store_.save(historyOf(20, 1)).ok());
        previous_ = *readFile(store_.url);
    }

    void expectPreviousIntact() {
        EXPECT_EQ(*readFile(store_.url), previous_);
        EXPECT_EQ(store_.load(), historyOf(20, 1));
        EXPECT_EQ(namesIn(fs::path(store_.url).parent_path()), std::vector<std::string>{"history.plist"})
            << "a temporary file was left behind";
    }

    // A file system of its own at `directory`, in a mount namespace of this
    // process's own, so that nothing is left mounted when the test ends.
    static std::string privateFileSystem(const std::string& directory, const std::string& options) {
        if (::unshare(CLONE_NEWNS) != 0) return std::string("unshare: ") + std::strerror(errno);
        if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", directory.c_str(), "tmpfs", 0, options.c_str()) != 0) {
            return std::string("mount: ") + std::strerror(errno);
        }
        return "";
    }

    testing::TemporaryDirectory temp_{"netvane-history-faults"};
    HistoryStore store_{""};
    Bytes previous_;
};

TEST_F(HistoryStoreFaultTest, FullFileSystem) {
    if (::geteuid() != 0) GTEST_SKIP() << "a small file system of the test's own needs root to mount";
    ASSERT_EQ(privateFileSystem(temp_.path(), "size=64k"), "");
    savePrevious(temp_.path());
    const Status saved = store_.save(historyOf(20'000, 2));  // about 3 MB
    ASSERT_FALSE(saved.ok());
    EXPECT_EQ(saved.error().code, ENOSPC);
    EXPECT_NE(saved.error().message.find(store_.url), std::string::npos) << saved.error().message;
    expectPreviousIntact();
}

TEST_F(HistoryStoreFaultTest, ReadOnlyFileSystem) {
    if (::geteuid() != 0) GTEST_SKIP() << "root writes into read-only directories; only a read-only mount stops it";
    ASSERT_EQ(privateFileSystem(temp_.path(), "size=1m"), "");
    savePrevious(temp_.path());
    ASSERT_EQ(::mount(nullptr, temp_.path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0) << std::strerror(errno);
    const Status saved = store_.save(historyOf(20, 3));
    ASSERT_FALSE(saved.ok());
    EXPECT_EQ(saved.error().code, EROFS);
    EXPECT_NE(saved.error().message.find(store_.url), std::string::npos) << saved.error().message;
    expectPreviousIntact();

    // Nor can a bad file be kept aside there: it stays, and the load says why.
    ASSERT_EQ(::mount(nullptr, temp_.path().c_str(), nullptr, MS_REMOUNT, nullptr), 0);
    ASSERT_TRUE(writeFileAtomically(store_.url, std::string_view("not a history")).ok());
    ASSERT_EQ(::mount(nullptr, temp_.path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    const HistoryLoad loaded = store_.load(UnreadableFile::keepAside);
    EXPECT_TRUE(loaded.histories.empty());
    EXPECT_TRUE(loaded.unreadable.has_value());
    EXPECT_FALSE(loaded.keptAs.has_value());
    ASSERT_TRUE(loaded.keepAsideError.has_value());
    EXPECT_EQ(loaded.keepAsideError->code, EROFS);
    EXPECT_EQ(namesIn(temp_.path()), std::vector<std::string>{"history.plist"});
}

struct WriterRun {
    int status = -1;
    std::string errors;
};

// `fiu-run -x -c "enable name=POINT,failinfo=EIO" WRITER FILE`, with its standard error.
WriterRun saveUnderFault(const std::string& point, const std::string& file) {
    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC) != 0) return {};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe[1], STDERR_FILENO);
    const std::string command = "enable name=" + point + ",failinfo=" + std::to_string(EIO);
    const char* argv[] = {"fiu-run", "-x", "-f", "", "-c", command.c_str(), NETVANE_HISTORY_WRITER, file.c_str(),
                          nullptr};
    // The injector's preload library keeps an allocation of its own that a
    // leak checker in the writer (sanitizer builds) would fail it for.
    std::vector<std::string> variables;
    for (char** variable = environ; *variable; ++variable) {
        if (!std::string_view(*variable).starts_with("ASAN_OPTIONS=")) variables.emplace_back(*variable);
    }
    const char* sanitizer = std::getenv("ASAN_OPTIONS");
    variables.push_back(std::string("ASAN_OPTIONS=") + (sanitizer ? std::string(sanitizer) + ":" : "") +
                        "detect_leaks=0");
    std::vector<char*> environment;
    for (std::string& variable : variables) environment.push_back(variable.data());
    environment.push_back(nullptr);
    pid_t pid = -1;
    const int spawned =
        ::posix_spawnp(&pid, "fiu-run", &actions, nullptr, const_cast<char**>(argv), environment.data());
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipe[1]);
    WriterRun run;
    char buffer[4096];
    for (ssize_t n; spawned == 0 && (n = ::read(pipe[0], buffer, sizeof buffer)) != 0;) {
        if (n > 0) run.errors.append(buffer, static_cast<std::size_t>(n));
        else if (errno != EINTR) break;
    }
    ::close(pipe[0]);
    int status = 0;
    if (spawned == 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status)) run.status = WEXITSTATUS(status);
    return run;
}

bool haveFaultInjector() { return std::system("command -v fiu-run >/dev/null 2>&1") == 0; }

TEST_F(HistoryStoreFaultTest, InjectedIOErrors) {
    if (!haveFaultInjector()) GTEST_SKIP() << "fiu-run (Debian's fiu-utils) is not installed";
    savePrevious(temp_.path());
    const struct {
        const char* point;
        const char* call;  // what the message names
    } faults[] = {{"posix/io/rw/write", "write"}, {"posix/io/sync/fsync", "fsync"}, {"posix/io/dir/rename", "rename"}};
    for (const auto& fault : faults) {
        SCOPED_TRACE(fault.point);
        const WriterRun run = saveUnderFault(fault.point, store_.url);
        EXPECT_EQ(run.status, 1) << run.errors;
        EXPECT_NE(run.errors.find(fault.call), std::string::npos) << run.errors;
        EXPECT_NE(run.errors.find(store_.url), std::string::npos) << run.errors;
        EXPECT_NE(run.errors.find(std::strerror(EIO)), std::string::npos) << run.errors;
        expectPreviousIntact();
    }
    // The injector is real: without a fault the same program replaces the file.
    const WriterRun clean = saveUnderFault("posix/none", store_.url);
    EXPECT_EQ(clean.status, 0) << clean.errors;
    EXPECT_NE(*readFile(store_.url), previous_);
}

}  // namespace
}  // namespace netvane
