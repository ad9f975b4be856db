// Test fixtures for the real kernel: a private network namespace (with its
// own sysfs, so that /sys/class/net names this namespace's interfaces) that
// vanishes with the test process, and child processes holding tun devices.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "support/unique_fd.h"

namespace netvane::testing {

// Moves this process into a fresh network and mount namespace with loopback
// up. Returns why it could not (not root, no namespaces), or nothing.
std::optional<std::string> enterPrivateNetworkNamespace();

// Runs a shell command; true when it exits 0. Its output goes to stderr.
bool sh(const std::string& command);
// Runs a shell command and returns its standard output; nothing when it
// exits with another status than 0. Its errors are dropped.
std::optional<std::string> capture(const std::string& command);

// A child process that holds one tun descriptor per name until destroyed.
class TunHolder {
public:
    // With ownNamespace the child first moves to a network namespace of its
    // own, so its devices live there. Nothing on failure.
    static std::optional<TunHolder> start(const std::vector<std::string>& names, bool ownNamespace = false);

    TunHolder(TunHolder&& other) noexcept;
    TunHolder& operator=(TunHolder&&) = delete;
    ~TunHolder();

    pid_t pid() const { return pid_; }

private:
    TunHolder(pid_t pid, UniqueFd release) : pid_(pid), release_(std::move(release)) {}
    pid_t pid_ = -1;
    UniqueFd release_;
};

}  // namespace netvane::testing
