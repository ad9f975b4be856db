// A private world with a real NetworkManager for tests: this process moves to
// a network namespace of its own, a private system bus starts, and
// NetworkManager runs on it inside the sandbox script (nothing it writes
// reaches the host), managing veths made for it. DBUS_SYSTEM_BUS_ADDRESS
// points this process at the private bus. Everything started is stopped, and
// the directory removed, on destruction, whatever happened.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace netvane::testing {

class NetworkManagerWorld {
public:
    // Nothing and the reason when there is no world: `unsupported` tells a
    // machine that cannot hold one (not root, no NetworkManager, no
    // dbus-daemon) from one where it failed to start.
    static std::unique_ptr<NetworkManagerWorld> start(const std::vector<std::string>& veths, std::string& whyNot,
                                                      bool& unsupported);
    ~NetworkManagerWorld();
    NetworkManagerWorld(const NetworkManagerWorld&) = delete;
    NetworkManagerWorld& operator=(const NetworkManagerWorld&) = delete;

    const std::string& busAddress() const { return busAddress_; }
    // Stops NetworkManager (only), as a crash or a stopped service would.
    void stopNetworkManager();
    // The tail of NetworkManager's log, for failure messages.
    std::string logTail() const;

private:
    NetworkManagerWorld() = default;
    bool waitUntilRunning();

    std::string directory_;
    std::string busAddress_;
    pid_t bus_ = -1;
    pid_t networkManager_ = -1;
};

}  // namespace netvane::testing
