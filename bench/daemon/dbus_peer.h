// The D-Bus side of the daemon round-trip comparison: a private session-type
// bus (a dbus-daemon child of this process), a trivial service on it that
// answers one method, and a client that calls it.
//
// The service answers Status(s token) -> a{sv} {"version", "protocol",
// "paired"}, the same shape as the daemon's status reply, from one thread
// that owns its bus connection, as a typical D-Bus service does. Each
// DBusStatusClient owns one bus connection and must stay on one thread.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "support/result.h"

struct sd_bus;

namespace netvane::bench {

struct BusCloser {
    void operator()(sd_bus* bus) const;
};
using BusConnection = std::unique_ptr<sd_bus, BusCloser>;

// Starts `dbus-daemon --session` listening in `directory` and the service;
// both end with the object.
class DBusPeer {
public:
    static Result<std::unique_ptr<DBusPeer>> start(const std::string& directory);
    ~DBusPeer();
    DBusPeer(const DBusPeer&) = delete;
    DBusPeer& operator=(const DBusPeer&) = delete;

    const std::string& address() const { return address_; }

private:
    DBusPeer() = default;
    void serve();

    pid_t busPid_ = -1;
    std::string address_;
    BusConnection service_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

class DBusStatusClient {
public:
    static Result<DBusStatusClient> connect(const std::string& address);
    // One round trip; ok when the reply has the expected shape and says paired.
    Status status(const std::string& token);

private:
    explicit DBusStatusClient(BusConnection bus) : bus_(std::move(bus)) {}
    BusConnection bus_;
};

}  // namespace netvane::bench
