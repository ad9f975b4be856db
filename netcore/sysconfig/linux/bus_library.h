// The bus library, loaded when a bus is first opened rather than linked:
// linking it would load it, and its chain of capability, crypto and
// compression libraries, at every start of every program, while most
// commands never touch the bus (bench/README.md has the cost).
//
// Its functions are reached through a table of our own, bus::sd(), never
// under the library's own names: NetCore defines no symbol of the library's,
// so a program (or a shared object) that links both NetCore and the library
// sees one definition of each, the library's. Call sites read
// `bus::sd().sd_bus_call(...)`.
//
// When the library cannot be loaded, the table's functions that open or
// create a bus return -ELIBACC and busLibraryFailure() says why; functions on
// objects that cannot exist then do nothing (unref returns null, free does
// nothing, an error that nothing filled in is not set).
#pragma once

#include <systemd/sd-bus.h>

#include <memory>
#include <string>

#include "support/result.h"

namespace netvane::bus {

inline constexpr const char* kBusLibraryName = "libsystemd.so.0";

// Every function of the library the code base calls. The table resolves them
// all at load time, so a library too old for any of them is refused at once
// instead of failing halfway through a conversation.
#define NV_BUS_FUNCTIONS(X)                                                                                       \
    X(sd_bus_new) X(sd_bus_open_system) X(sd_bus_set_address) X(sd_bus_set_bus_client)                              \
    X(sd_bus_set_method_call_timeout) X(sd_bus_start) X(sd_bus_is_ready) X(sd_bus_flush_close_unref)                \
    X(sd_bus_process) X(sd_bus_wait) X(sd_bus_get_fd) X(sd_bus_get_events) X(sd_bus_get_timeout)                    \
    X(sd_bus_request_name) X(sd_bus_call) X(sd_bus_call_async) X(sd_bus_add_match) X(sd_bus_add_match_async)        \
    X(sd_bus_match_signal) X(sd_bus_add_object_vtable) X(sd_bus_slot_unref) X(sd_bus_reply_method_return)           \
    X(sd_bus_message_new_method_call) X(sd_bus_message_ref) X(sd_bus_message_unref) X(sd_bus_message_append)        \
    X(sd_bus_message_read) X(sd_bus_message_read_basic) X(sd_bus_message_read_array) X(sd_bus_message_skip)         \
    X(sd_bus_message_peek_type) X(sd_bus_message_at_end) X(sd_bus_message_rewind) X(sd_bus_message_copy)            \
    X(sd_bus_message_open_container) X(sd_bus_message_close_container) X(sd_bus_message_enter_container)            \
    X(sd_bus_message_exit_container) X(sd_bus_message_set_auto_start) X(sd_bus_message_get_member)                  \
    X(sd_bus_message_get_path) X(sd_bus_message_get_interface) X(sd_bus_message_get_error) X(sd_bus_error_free)     \
    X(sd_bus_error_is_set)

// One library's functions, each member the library's function of that name.
struct BusLibrary {
#define NV_BUS_MEMBER(name) decltype(&::name) name = nullptr;
    NV_BUS_FUNCTIONS(NV_BUS_MEMBER)
#undef NV_BUS_MEMBER
};

// The process's table: the library's functions once loaded (on the first
// call, thread-safe), or the stand-ins above when it cannot be. Kept for the
// process's life: a connection held by a static object is closed at exit.
const BusLibrary& sd();

// Why the process's bus library is unusable ("cannot load libsystemd.so.0:
// ..."), or empty once it has loaded. Loads it on the first call.
std::string busLibraryFailure();

// The text for a negative errno that a bus function returned: the loader's
// reason for -ELIBACC when loading failed, the errno's otherwise.
std::string describeBusResult(int negativeErrno);

// Loads a library by name and resolves every member; exposed so tests can
// ask for one that is missing or lacks a function. Never unloaded.
Result<std::shared_ptr<const BusLibrary>> loadBusLibrary(const char* name);

}  // namespace netvane::bus
