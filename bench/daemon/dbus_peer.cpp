#include "bench/daemon/dbus_peer.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "support/unique_fd.h"

namespace netvane::bench {
namespace {

constexpr const char* kServiceName = "com.tarnwick.Netvane.Bench";
constexpr const char* kObjectPath = "/com/tarnwick/Netvane/Bench";
constexpr const char* kInterface = "com.tarnwick.Netvane.Bench";
constexpr int kStartTimeoutMs = 10'000;
constexpr std::uint64_t kCallTimeoutMicroseconds = 10'000'000;

Error busError(int result, const std::string& what) { return posixError(-result, what); }

int statusMethod(sd_bus_message* call, void*, sd_bus_error*) {
    const char* token = nullptr;
    int r = sd_bus_message_read(call, "s", &token);
    if (r < 0) return r;
    return sd_bus_reply_method_return(call, "a{sv}", 3, "version", "s", "0.1.0", "protocol", "x", std::int64_t{1},
                                      "paired", "b", 1);
}

const sd_bus_vtable kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Status", "s", "a{sv}", statusMethod, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

Result<BusConnection> openBus(const std::string& address) {
    sd_bus* raw = nullptr;
    int r = sd_bus_new(&raw);
    if (r < 0) return busError(r, "sd_bus_new");
    BusConnection bus(raw);
    r = sd_bus_set_address(bus.get(), address.c_str());
    if (r >= 0) r = sd_bus_set_bus_client(bus.get(), 1);
    if (r >= 0) r = sd_bus_start(bus.get());
    if (r < 0) return busError(r, "connect to " + address);
    return bus;
}

// Reads the address the bus prints, one line, within kStartTimeoutMs.
Result<std::string> readAddress(int fd) {
    std::string line;
    char c = 0;
    while (line.empty() || line.back() != '\n') {
        pollfd ready{fd, POLLIN, 0};
        if (::poll(&ready, 1, kStartTimeoutMs) <= 0) return Error{"netvane.bench", 1, "dbus-daemon printed no address"};
        const ssize_t n = ::read(fd, &c, 1);
        if (n <= 0) return Error{"netvane.bench", 1, "dbus-daemon exited before printing its address"};
        line += c;
    }
    line.pop_back();
    return line;
}

}  // namespace

void BusCloser::operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }

Result<std::unique_ptr<DBusPeer>> DBusPeer::start(const std::string& directory) {
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) return posixError(errno, "pipe");
    UniqueFd readEnd(pipeFds[0]), writeEnd(pipeFds[1]);
    const std::string listen = "--address=unix:path=" + directory + "/bus";

    std::unique_ptr<DBusPeer> peer(new DBusPeer);
    peer->busPid_ = ::fork();
    if (peer->busPid_ < 0) return posixError(errno, "fork");
    if (peer->busPid_ == 0) {
        ::dup2(writeEnd.get(), STDOUT_FILENO);
        ::execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--print-address=1", listen.c_str(),
                 static_cast<char*>(nullptr));
        ::_exit(127);
    }
    writeEnd.reset();
    auto address = readAddress(readEnd.get());
    if (!address) return address.error();
    peer->address_ = *address;

    auto bus = openBus(peer->address_);
    if (!bus) return bus.error();
    peer->service_ = std::move(*bus);
    int r = sd_bus_add_object_vtable(peer->service_.get(), nullptr, kObjectPath, kInterface, kVtable, nullptr);
    if (r >= 0) r = sd_bus_request_name(peer->service_.get(), kServiceName, 0);
    if (r < 0) return busError(r, "export the service");
    peer->thread_ = std::thread([p = peer.get()] { p->serve(); });
    return peer;
}

void DBusPeer::serve() {
    while (!stopping_.load()) {
        const int r = sd_bus_process(service_.get(), nullptr);
        if (r < 0) break;
        if (r == 0) sd_bus_wait(service_.get(), 100'000);  // wakes up now and then to see stopping_
    }
}

DBusPeer::~DBusPeer() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
    service_.reset();
    if (busPid_ > 0) {
        ::kill(busPid_, SIGTERM);
        ::waitpid(busPid_, nullptr, 0);
    }
}

Result<DBusStatusClient> DBusStatusClient::connect(const std::string& address) {
    auto bus = openBus(address);
    if (!bus) return bus.error();
    return DBusStatusClient(std::move(*bus));
}

Status DBusStatusClient::status(const std::string& token) {
    sd_bus_message* call = nullptr;
    int r = sd_bus_message_new_method_call(bus_.get(), &call, kServiceName, kObjectPath, kInterface, "Status");
    if (r < 0) return busError(r, "build Status");
    r = sd_bus_message_append(call, "s", token.c_str());
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    if (r >= 0) r = sd_bus_call(bus_.get(), call, kCallTimeoutMicroseconds, &error, &reply);
    sd_bus_message_unref(call);
    if (r < 0) {
        Error failure{"netvane.bench", -r, std::string("Status: ") + (error.message ? error.message : strerror(-r))};
        sd_bus_error_free(&error);
        return failure;
    }
    // Decode the whole reply, as our client decodes its dictionary.
    const char *versionKey = nullptr, *version = nullptr, *protocolKey = nullptr, *pairedKey = nullptr;
    std::int64_t protocol = 0;
    int paired = 0;
    r = sd_bus_message_read(reply, "a{sv}", 3, &versionKey, "s", &version, &protocolKey, "x", &protocol, &pairedKey,
                            "b", &paired);
    const bool expected = r >= 0 && std::strcmp(versionKey, "version") == 0 && std::strcmp(pairedKey, "paired") == 0 &&
                          protocol == 1 && paired;
    sd_bus_message_unref(reply);
    if (!expected) return Error{"netvane.bench", 2, "unexpected Status reply"};
    return {};
}

}  // namespace netvane::bench
