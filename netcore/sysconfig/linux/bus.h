// The system bus as the configuration backends use it: connections and
// messages owned by RAII handles, every call bounded by a timeout, many calls
// in flight at once, and replies read into property-list values.
//
// A connection belongs to one thread at a time. An error reply becomes an
// Error whose domain is the bus error's name; local failures (no bus, a
// timeout, a malformed reply) have the domain kBusErrorDomain and errno.
#pragma once

#include <systemd/sd-bus.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "netcore/sysconfig/linux/bus_library.h"
#include "support/plist/value.h"
#include "support/result.h"

namespace netvane::bus {

inline constexpr const char* kBusErrorDomain = "netvane.bus";
// NetworkManager answers every request we make at once; a service that does
// not within this is hung, and waiting longer would only hang us too.
inline constexpr std::chrono::microseconds kCallTimeout = std::chrono::seconds(5);

struct BusCloser {
    void operator()(sd_bus* bus) const { sd().sd_bus_flush_close_unref(bus); }
};
struct MessageUnref {
    void operator()(sd_bus_message* message) const { sd().sd_bus_message_unref(message); }
};
struct SlotUnref {
    void operator()(sd_bus_slot* slot) const { sd().sd_bus_slot_unref(slot); }
};
using Bus = std::unique_ptr<sd_bus, BusCloser>;
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;
using Slot = std::unique_ptr<sd_bus_slot, SlotUnref>;

// The system bus ($DBUS_SYSTEM_BUS_ADDRESS when set), connected and greeted
// within the call timeout.
Result<Bus> openSystemBus();

// A method call ready for arguments; it never starts its destination.
Result<Message> methodCall(sd_bus* bus, const char* destination, const char* path, const char* interface,
                           const char* member);
// Sends one call and waits for its reply within the call timeout.
Result<Message> call(sd_bus* bus, sd_bus_message* request);
// Sends every call at once and waits for all replies (each within the call
// timeout): one round trip's wait instead of one per call. Replies come in
// the order of the requests.
std::vector<Result<Message>> callAll(sd_bus* bus, const std::vector<Message>& requests);

// Reads the message's next complete value. Dictionaries become dictionaries
// (keys as text), arrays of bytes data, other arrays and structures arrays,
// variants their content, object paths and signatures strings.
Result<plist::Value> readValue(sd_bus_message* message);

Error errorFrom(int negativeErrno, const std::string& doing);
Error errorFrom(const sd_bus_error& error, const std::string& doing);

}  // namespace netvane::bus
