#include "tests/netcore/publicip/support/python_tls_server.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

extern char** environ;

namespace netvane::testing {
namespace {

void require(bool ok, const std::string& what) {
    if (!ok) throw std::runtime_error("python TLS server: " + what + ": " + std::strerror(errno));
}

// The first line the server prints: its port.
std::uint16_t readPort(int fd) {
    std::string line;
    char c;
    while (line.size() < 16) {
        const ssize_t n = ::read(fd, &c, 1);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0 || c == '\n') break;
        line += c;
    }
    const unsigned long port = line.empty() ? 0 : std::stoul(line);
    if (port == 0 || port > 65535) throw std::runtime_error("python TLS server: no port in \"" + line + "\"");
    return static_cast<std::uint16_t>(port);
}

}  // namespace

PythonTLSServer::PythonTLSServer(const TLSIdentity& identity) {
    const std::string certificate = files_.path() + "/certificate.pem";
    const std::string key = files_.path() + "/key.pem";
    std::ofstream(certificate) << identity.certificatePEM;
    std::ofstream(key) << identity.keyPEM;

    int input[2], output[2];
    require(::pipe2(input, O_CLOEXEC) == 0 && ::pipe2(output, O_CLOEXEC) == 0, "pipe");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    const std::string script = NETVANE_PYTHON_TLS_SERVER;
    char* argv[] = {const_cast<char*>("python3"), const_cast<char*>(script.c_str()),
                    const_cast<char*>(certificate.c_str()), const_cast<char*>(key.c_str()), nullptr};
    const int spawned = ::posix_spawnp(&pid_, "python3", &actions, nullptr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(input[0]);
    ::close(output[1]);
    input_ = input[1];
    if (spawned != 0) {
        ::close(output[0]);
        errno = spawned;
        require(false, "spawn python3");
    }
    try {
        port_ = readPort(output[0]);
    } catch (...) {
        ::close(output[0]);
        stop();
        throw;
    }
    ::close(output[0]);
}

PythonTLSServer::~PythonTLSServer() { stop(); }

void PythonTLSServer::stop() {
    if (input_ >= 0) ::close(input_);
    input_ = -1;
    if (pid_ <= 0) return;
    // The server ends when its input closes; a stuck one is stopped.
    int status = 0;
    for (int i = 0; i < 200; ++i) {
        if (::waitpid(pid_, &status, WNOHANG) != 0) {
            pid_ = -1;
            return;
        }
        ::usleep(10'000);
    }
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
}

}  // namespace netvane::testing
