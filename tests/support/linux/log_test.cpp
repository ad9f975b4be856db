#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/temporary_directory.h"

#include "support/files.h"
#include "support/log.h"

namespace netvane {
namespace {

// Points stderr at a file for the test's lifetime, and JOURNAL_STREAM at
// whatever the test says.
class StderrToFile {
public:
    explicit StderrToFile(const std::string& path) : path_(path) {
        saved_ = ::dup(STDERR_FILENO);
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        ::dup2(fd, STDERR_FILENO);
        ::close(fd);
    }
    ~StderrToFile() {
        ::dup2(saved_, STDERR_FILENO);
        ::close(saved_);
        ::unsetenv("JOURNAL_STREAM");
        Logger::mirrorToStderr(false);
    }
    std::string identity() const {
        struct stat info {};
        ::fstat(STDERR_FILENO, &info);
        return std::to_string(info.st_dev) + ":" + std::to_string(info.st_ino);
    }
    std::string written() const {
        std::fflush(stderr);
        auto bytes = readFile(path_);
        return bytes ? std::string(bytes->begin(), bytes->end()) : "";
    }

private:
    std::string path_;
    int saved_ = -1;
};

TEST(LoggerMirror, CopiesToStderrUnlessStderrIsTheJournal) {
    testing::TemporaryDirectory temp{"netvane-log"};
    const Logger log("com.tarnwick.Netvane.test", "test");
    {
        StderrToFile capture(temp.path() + "/plain");
        Logger::mirrorToStderr(true);
        log.info("to the terminal");
        EXPECT_NE(capture.written().find("[test] to the terminal"), std::string::npos);
    }
    {
        StderrToFile capture(temp.path() + "/journal");
        ::setenv("JOURNAL_STREAM", capture.identity().c_str(), 1);
        Logger::mirrorToStderr(true);
        log.info("to the journal");
        EXPECT_EQ(capture.written(), "");
    }
    {
        // A stream inherited from elsewhere (the variable survives an exec
        // with stderr redirected) is not the journal.
        StderrToFile capture(temp.path() + "/redirected");
        ::setenv("JOURNAL_STREAM", (capture.identity() + "1").c_str(), 1);
        Logger::mirrorToStderr(true);
        log.info("redirected");
        EXPECT_NE(capture.written().find("redirected"), std::string::npos);
    }
}

}  // namespace
}  // namespace netvane
