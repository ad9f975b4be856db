#include "io.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "command.h"
#include "support/files.h"
#include "support/unique_fd.h"

namespace netvane::cli {
namespace {

// Big enough that a large document goes out in few writes, small enough
// that a live command's reading is never held back by it (it flushes).
constexpr std::size_t kOutputBuffer = 64 * 1024;

struct Output {
    enum class State { open, ended, failed };
    std::string buffer;
    State state = State::open;
    int error = 0;
};

Output& output() {
    static Output state;
    return state;
}

// Waits until `fd` takes more bytes; false when a signal ended the wait.
bool awaitWritable(int fd) {
    pollfd request{fd, POLLOUT, 0};
    while (::poll(&request, 1, -1) < 0) {
        if (errno != EINTR || interrupted()) return false;
    }
    return true;
}

// The bytes written to `fd`, or errno: EINTR when an ending signal cut the
// write short.
int writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = ::write(fd, bytes.data(), bytes.size());
        if (n >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(n));
            continue;
        }
        if (errno == EINTR && !interrupted()) continue;
        // A descriptor someone else made non-blocking (a shared terminal).
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (awaitWritable(fd)) continue;
            return EINTR;
        }
        return errno;
    }
    return 0;
}

mode_t newFileMode() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return 0666 & ~mask;
}

}  // namespace

void print(std::string_view text) {
    Output& out = output();
    if (out.state != Output::State::open) return;
    out.buffer.append(text);
    if (out.buffer.size() >= kOutputBuffer) flushOutput();
}

void printFormatted(const char* format, ...) {
    char small[512];
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    const int size = std::vsnprintf(small, sizeof small, format, arguments);
    va_end(arguments);
    if (size < 0) {
        va_end(again);
        return;
    }
    if (static_cast<std::size_t>(size) < sizeof small) {
        print(std::string_view(small, static_cast<std::size_t>(size)));
    } else {
        std::string large(static_cast<std::size_t>(size) + 1, '\0');
        std::vsnprintf(large.data(), large.size(), format, again);
        large.resize(static_cast<std::size_t>(size));
        print(large);
    }
    va_end(again);
}

bool flushOutput() {
    Output& out = output();
    if (out.state == Output::State::open && !out.buffer.empty()) {
        const int error = writeAll(STDOUT_FILENO, out.buffer);
        if (error == EPIPE || error == EINTR) {
            out.state = Output::State::ended;
        } else if (error != 0) {
            out.state = Output::State::failed;
            out.error = error;
        }
    }
    out.buffer.clear();
    return out.state == Output::State::open;
}

bool outputOpen() { return output().state == Output::State::open; }

int finishOutput(int status) {
    flushOutput();
    const Output& out = output();
    // What went out through the C library (the admin client's replies).
    errno = 0;
    const bool stdioFailed = std::fflush(stdout) != 0 || std::ferror(stdout) != 0;
    const int stdioError = errno;
    std::string problem;
    if (out.state == Output::State::failed) {
        problem = std::strerror(out.error);
    } else if (stdioFailed && stdioError != EPIPE) {
        problem = stdioError != 0 ? std::strerror(stdioError) : "the write failed";
    }
    if (problem.empty()) return status;
    failure("cannot write to standard output: " + problem);
    return status == kExitOK ? kExitFailure : status;
}

std::string inputName(const std::string& file) { return file == "-" ? "standard input" : file; }

Result<std::vector<std::uint8_t>> readInput(const std::string& file, std::size_t maxBytes) {
    if (file != "-") return readFile(file, maxBytes);
    struct stat info {};
    if (::fstat(STDIN_FILENO, &info) != 0) return posixError(errno, "read standard input");
    // A file given with "<" is as large as it says.
    if (S_ISREG(info.st_mode)) {
        const off_t at = ::lseek(STDIN_FILENO, 0, SEEK_CUR);
        if (at >= 0 && info.st_size - at > static_cast<off_t>(maxBytes)) {
            return posixError(EFBIG, "read standard input");
        }
    }
    std::vector<std::uint8_t> bytes;
    std::size_t used = 0;
    for (;;) {
        if (used == bytes.size()) {
            if (used > maxBytes) return posixError(EFBIG, "read standard input");
            // Never more than one byte past the cap: that byte says the input is too large.
            bytes.resize(std::min(maxBytes + 1, std::max<std::size_t>(64 * 1024, bytes.size() * 2)));
        }
        const ssize_t n = ::read(STDIN_FILENO, bytes.data() + used, bytes.size() - used);
        if (n < 0) {
            if (errno == EINTR && !interrupted()) continue;
            return posixError(errno, "read standard input");
        }
        if (n == 0) break;
        used += static_cast<std::size_t>(n);
    }
    if (used > maxBytes) return posixError(EFBIG, "read standard input");
    bytes.resize(used);
    return bytes;
}

Status writeOutput(const std::string& file, std::span<const std::uint8_t> bytes) {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (file == "-") {
        print(text);
        flushOutput();
        return {};
    }
    struct stat info {};
    if (::stat(file.c_str(), &info) == 0 && (S_ISFIFO(info.st_mode) || S_ISCHR(info.st_mode))) {
        // What sits in a pipe or a device cannot be replaced, only written to.
        flushOutput();
        UniqueFd fd(::open(file.c_str(), O_WRONLY | O_NOCTTY | O_CLOEXEC));
        if (!fd) return posixError(errno, "open " + file);
        if (const int error = writeAll(fd.get(), text); error != 0) return posixError(error, "write " + file);
        if (::close(fd.release()) != 0) return posixError(errno, "close " + file);
        return {};
    }
    return writeFileAtomically(file, bytes, newFileMode());
}

Status writeOutput(const std::string& file, std::string_view text) {
    return writeOutput(file, std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

}  // namespace netvane::cli
