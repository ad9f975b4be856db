#include "network_manager_world.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "netcore/sysconfig/linux/bus.h"
#include "netcore/sysconfig/linux/network_manager.h"
#include "network_namespace.h"

#if !defined(NETVANE_NM_SANDBOX_SCRIPT) || !defined(NETVANE_PRIVATE_BUS_SCRIPT)
#error "the build names the support scripts"
#endif

namespace netvane::testing {
namespace {

using namespace std::chrono_literals;

// Starts argv with its standard output and errors to the descriptors given.
pid_t spawn(const std::vector<std::string>& argv, int output, int errors) {
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    ::dup2(output, STDOUT_FILENO);
    ::dup2(errors, STDERR_FILENO);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    ::execvp(args[0], args.data());
    ::_exit(127);
}

// SIGTERM, then SIGKILL if it has not ended within the grace.
void stop(pid_t& pid) {
    if (pid <= 0) return;
    ::kill(pid, SIGTERM);
    for (int i = 0; i < 100; ++i) {
        if (::waitpid(pid, nullptr, WNOHANG) == pid) {
            pid = -1;
            return;
        }
        std::this_thread::sleep_for(50ms);
    }
    ::kill(pid, SIGKILL);
    while (::waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid = -1;
}

std::string readLine(int fd, std::chrono::milliseconds timeout) {
    std::string line;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        char c = 0;
        const ssize_t n = ::read(fd, &c, 1);
        if (n == 1) {
            if (c == '\n') return line;
            line += c;
        } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
            break;
        } else {
            std::this_thread::sleep_for(5ms);
        }
    }
    return line;
}

}  // namespace

std::unique_ptr<NetworkManagerWorld> NetworkManagerWorld::start(const std::vector<std::string>& veths,
                                                                std::string& whyNot, bool& unsupported) {
    unsupported = true;
    if (::access("/usr/sbin/NetworkManager", X_OK) != 0) {
        whyNot = "NetworkManager is not installed (package network-manager)";
        return nullptr;
    }
    if (!capture("command -v dbus-daemon")) {
        whyNot = "dbus-daemon is not installed";
        return nullptr;
    }
    if (auto reason = enterPrivateNetworkNamespace()) {
        whyNot = *reason;
        return nullptr;
    }
    unsupported = false;
    std::unique_ptr<NetworkManagerWorld> world(new NetworkManagerWorld());
    std::string pattern = "/tmp/netvane-nm-XXXXXX";
    if (!::mkdtemp(pattern.data())) {
        whyNot = "mkdtemp failed";
        return nullptr;
    }
    world->directory_ = pattern;

    int pipe[2];
    if (::pipe2(pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        whyNot = "pipe failed";
        return nullptr;
    }
    // Its warnings go to a file: a write to the pipe after we stopped reading
    // would end the bus.
    const int busLog = ::open((world->directory_ + "/bus.log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    world->bus_ = spawn({NETVANE_PRIVATE_BUS_SCRIPT, world->directory_ + "/bus"}, pipe[1], busLog);
    ::close(pipe[1]);
    ::close(busLog);
    world->busAddress_ = readLine(pipe[0], 10s);
    ::close(pipe[0]);
    if (world->busAddress_.rfind("unix:", 0) != 0) {
        whyNot = "the private bus did not start";
        return nullptr;
    }
    ::setenv("DBUS_SYSTEM_BUS_ADDRESS", world->busAddress_.c_str(), 1);

    const int log = ::open((world->directory_ + "/NetworkManager.log").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    std::vector<std::string> argv{NETVANE_NM_SANDBOX_SCRIPT, world->directory_};
    for (const std::string& veth : veths) {
        argv.push_back("--veth");
        argv.push_back(veth);
    }
    world->networkManager_ = spawn(argv, log, log);
    ::close(log);
    if (!world->waitUntilRunning()) {
        whyNot = "NetworkManager did not start: " + world->logTail();
        return nullptr;
    }
    return world;
}

bool NetworkManagerWorld::waitUntilRunning() {
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (std::chrono::steady_clock::now() < deadline) {
        if (::waitpid(networkManager_, nullptr, WNOHANG) == networkManager_) {
            networkManager_ = -1;
            return false;
        }
        if (auto bus = bus::openSystemBus()) {
            auto get = bus::methodCall(bus->get(), nm::kService, nm::kManagerPath, "org.freedesktop.DBus.Properties",
                                       "Get");
            if (get && bus::sd().sd_bus_message_append(get->get(), "ss", nm::kManagerInterface, "Startup") >= 0) {
                if (auto reply = bus::call(bus->get(), get->get())) {
                    auto startup = bus::readValue(reply->get());
                    if (startup && startup->boolean() == false) return true;
                }
            }
        }
        std::this_thread::sleep_for(50ms);
    }
    return false;
}

void NetworkManagerWorld::stopNetworkManager() { stop(networkManager_); }

std::string NetworkManagerWorld::logTail() const {
    std::ifstream log(directory_ + "/NetworkManager.log");
    std::stringstream text;
    text << log.rdbuf();
    const std::string all = text.str();
    return all.size() > 4000 ? all.substr(all.size() - 4000) : all;
}

NetworkManagerWorld::~NetworkManagerWorld() {
    stop(networkManager_);
    stop(bus_);
    ::unsetenv("DBUS_SYSTEM_BUS_ADDRESS");
    std::error_code ignored;
    if (!directory_.empty()) std::filesystem::remove_all(directory_, ignored);
}

}  // namespace netvane::testing
