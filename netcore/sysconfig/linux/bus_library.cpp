#include "netcore/sysconfig/linux/bus_library.h"

#include <dlfcn.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <type_traits>

#include "netcore/sysconfig/linux/bus.h"

// Every function below is the one the library exports; the table resolves
// them all at load time, so a library too old for any of them is refused at
// once instead of failing halfway through a conversation.
#define NETVANE_BUS_FUNCTIONS(X)                                                                                      \
    X(sd_bus_new) X(sd_bus_open_system) X(sd_bus_set_address) X(sd_bus_set_bus_client)                                  \
    X(sd_bus_set_method_call_timeout) X(sd_bus_start) X(sd_bus_is_ready) X(sd_bus_flush_close_unref)                    \
    X(sd_bus_process) X(sd_bus_wait) X(sd_bus_get_fd) X(sd_bus_get_events) X(sd_bus_get_timeout)                        \
    X(sd_bus_request_name) X(sd_bus_call) X(sd_bus_call_async) X(sd_bus_add_match) X(sd_bus_add_match_async)            \
    X(sd_bus_match_signal) X(sd_bus_add_object_vtable) X(sd_bus_slot_unref) X(sd_bus_reply_method_returnv)              \
    X(sd_bus_message_new_method_call) X(sd_bus_message_ref) X(sd_bus_message_unref) X(sd_bus_message_appendv)           \
    X(sd_bus_message_readv) X(sd_bus_message_read_basic) X(sd_bus_message_read_array) X(sd_bus_message_skip)            \
    X(sd_bus_message_peek_type) X(sd_bus_message_at_end) X(sd_bus_message_rewind) X(sd_bus_message_copy)                \
    X(sd_bus_message_open_container) X(sd_bus_message_close_container) X(sd_bus_message_enter_container)                \
    X(sd_bus_message_exit_container) X(sd_bus_message_set_auto_start) X(sd_bus_message_get_member)                      \
    X(sd_bus_message_get_path) X(sd_bus_message_get_interface) X(sd_bus_message_get_error) X(sd_bus_error_free)         \
    X(sd_bus_error_is_set)

namespace netvane::bus {

struct BusFunctions {
    void* handle = nullptr;
#define NETVANE_BUS_MEMBER(name) decltype(&::name) name = nullptr;
    NETVANE_BUS_FUNCTIONS(NETVANE_BUS_MEMBER)
#undef NETVANE_BUS_MEMBER
};

namespace {

Error loadFailure(std::string reason) { return Error{kBusErrorDomain, ELIBACC, std::move(reason)}; }

// The process's library, tried once; later calls see the same outcome. It
// is never destroyed: a connection held by a static object is closed at exit,
// possibly after a static table would already be gone.
const Result<std::shared_ptr<const BusFunctions>>& processLibrary() {
    static const auto* library = new Result<std::shared_ptr<const BusFunctions>>(loadBusLibrary(kBusLibraryName));
    return *library;
}

const BusFunctions* loaded() {
    const auto& library = processLibrary();
    return library ? library->get() : nullptr;
}

// Calls the library's `member`, or answers `otherwise` when it is not loaded.
template <class Function, class... Args>
auto forward(Function BusFunctions::*member, std::invoke_result_t<Function, Args...> otherwise, Args... args) {
    const BusFunctions* functions = loaded();
    return functions ? (functions->*member)(args...) : otherwise;
}

}  // namespace

Result<std::shared_ptr<const BusFunctions>> loadBusLibrary(const char* name) {
    // Local: the library's names must not interpose on anything else the
    // process loads later.
    void* handle = ::dlopen(name, RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* reason = ::dlerror();
        return loadFailure(std::string("cannot load ") + name + ": " + (reason ? reason : "unknown reason"));
    }
    auto functions = std::make_shared<BusFunctions>();
    functions->handle = handle;
    const char* missing = nullptr;
#define NETVANE_BUS_RESOLVE(symbol)                                                                      \
    if (!missing) {                                                                                      \
        functions->symbol = reinterpret_cast<decltype(&::symbol)>(::dlsym(handle, #symbol));             \
        if (!functions->symbol) missing = #symbol;                                                       \
    }
    NETVANE_BUS_FUNCTIONS(NETVANE_BUS_RESOLVE)
#undef NETVANE_BUS_RESOLVE
    if (missing) {
        const char* reason = ::dlerror();
        Error failure = loadFailure(std::string("cannot load ") + name + ": it lacks " + missing +
                                    (reason ? std::string(" (") + reason + ")" : std::string()));
        ::dlclose(handle);
        return failure;
    }
    return std::shared_ptr<const BusFunctions>(std::move(functions));
}

std::string busLibraryFailure() {
    const auto& library = processLibrary();
    return library ? std::string() : library.error().message;
}

std::string describeBusResult(int negativeErrno) {
    if (negativeErrno == -ELIBACC) {
        if (std::string failure = busLibraryFailure(); !failure.empty()) return failure;
    }
    return std::strerror(-negativeErrno);
}

}  // namespace netvane::bus

using netvane::bus::BusFunctions;
using netvane::bus::forward;

// The forwarders, one per function, each with the header's prototype (the
// compiler holds every definition to its declaration there).
extern "C" {

int sd_bus_new(sd_bus** ret) { return forward(&BusFunctions::sd_bus_new, -ELIBACC, ret); }
int sd_bus_open_system(sd_bus** ret) { return forward(&BusFunctions::sd_bus_open_system, -ELIBACC, ret); }
int sd_bus_set_address(sd_bus* bus, const char* address) {
    return forward(&BusFunctions::sd_bus_set_address, -ELIBACC, bus, address);
}
int sd_bus_set_bus_client(sd_bus* bus, int b) { return forward(&BusFunctions::sd_bus_set_bus_client, -ELIBACC, bus, b); }
int sd_bus_set_method_call_timeout(sd_bus* bus, uint64_t usec) {
    return forward(&BusFunctions::sd_bus_set_method_call_timeout, -ELIBACC, bus, usec);
}
int sd_bus_start(sd_bus* bus) { return forward(&BusFunctions::sd_bus_start, -ELIBACC, bus); }
int sd_bus_is_ready(sd_bus* bus) { return forward(&BusFunctions::sd_bus_is_ready, -ELIBACC, bus); }
sd_bus* sd_bus_flush_close_unref(sd_bus* bus) {
    return forward(&BusFunctions::sd_bus_flush_close_unref, static_cast<sd_bus*>(nullptr), bus);
}
int sd_bus_process(sd_bus* bus, sd_bus_message** r) { return forward(&BusFunctions::sd_bus_process, -ELIBACC, bus, r); }
int sd_bus_wait(sd_bus* bus, uint64_t timeout_usec) {
    return forward(&BusFunctions::sd_bus_wait, -ELIBACC, bus, timeout_usec);
}
int sd_bus_get_fd(sd_bus* bus) { return forward(&BusFunctions::sd_bus_get_fd, -ELIBACC, bus); }
int sd_bus_get_events(sd_bus* bus) { return forward(&BusFunctions::sd_bus_get_events, -ELIBACC, bus); }
int sd_bus_get_timeout(sd_bus* bus, uint64_t* timeout_usec) {
    return forward(&BusFunctions::sd_bus_get_timeout, -ELIBACC, bus, timeout_usec);
}
int sd_bus_request_name(sd_bus* bus, const char* name, uint64_t flags) {
    return forward(&BusFunctions::sd_bus_request_name, -ELIBACC, bus, name, flags);
}
int sd_bus_call(sd_bus* bus, sd_bus_message* m, uint64_t usec, sd_bus_error* ret_error, sd_bus_message** reply) {
    return forward(&BusFunctions::sd_bus_call, -ELIBACC, bus, m, usec, ret_error, reply);
}
int sd_bus_call_async(sd_bus* bus, sd_bus_slot** slot, sd_bus_message* m, sd_bus_message_handler_t callback,
                      void* userdata, uint64_t usec) {
    return forward(&BusFunctions::sd_bus_call_async, -ELIBACC, bus, slot, m, callback, userdata, usec);
}
int sd_bus_add_match(sd_bus* bus, sd_bus_slot** slot, const char* match, sd_bus_message_handler_t callback,
                     void* userdata) {
    return forward(&BusFunctions::sd_bus_add_match, -ELIBACC, bus, slot, match, callback, userdata);
}
int sd_bus_add_match_async(sd_bus* bus, sd_bus_slot** slot, const char* match, sd_bus_message_handler_t callback,
                           sd_bus_message_handler_t install_callback, void* userdata) {
    return forward(&BusFunctions::sd_bus_add_match_async, -ELIBACC, bus, slot, match, callback, install_callback,
                   userdata);
}
int sd_bus_match_signal(sd_bus* bus, sd_bus_slot** ret, const char* sender, const char* path, const char* interface,
                        const char* member, sd_bus_message_handler_t callback, void* userdata) {
    return forward(&BusFunctions::sd_bus_match_signal, -ELIBACC, bus, ret, sender, path, interface, member, callback,
                   userdata);
}
int sd_bus_add_object_vtable(sd_bus* bus, sd_bus_slot** slot, const char* path, const char* interface,
                             const sd_bus_vtable* vtable, void* userdata) {
    return forward(&BusFunctions::sd_bus_add_object_vtable, -ELIBACC, bus, slot, path, interface, vtable, userdata);
}
sd_bus_slot* sd_bus_slot_unref(sd_bus_slot* slot) {
    return forward(&BusFunctions::sd_bus_slot_unref, static_cast<sd_bus_slot*>(nullptr), slot);
}
int sd_bus_reply_method_returnv(sd_bus_message* call, const char* types, va_list ap) {
    return forward(&BusFunctions::sd_bus_reply_method_returnv, -ELIBACC, call, types, ap);
}
int sd_bus_reply_method_return(sd_bus_message* call, const char* types, ...) {
    va_list ap;
    va_start(ap, types);
    const int r = sd_bus_reply_method_returnv(call, types, ap);
    va_end(ap);
    return r;
}

int sd_bus_message_new_method_call(sd_bus* bus, sd_bus_message** m, const char* destination, const char* path,
                                   const char* interface, const char* member) {
    return forward(&BusFunctions::sd_bus_message_new_method_call, -ELIBACC, bus, m, destination, path, interface,
                   member);
}
sd_bus_message* sd_bus_message_ref(sd_bus_message* m) {
    return forward(&BusFunctions::sd_bus_message_ref, static_cast<sd_bus_message*>(nullptr), m);
}
sd_bus_message* sd_bus_message_unref(sd_bus_message* m) {
    return forward(&BusFunctions::sd_bus_message_unref, static_cast<sd_bus_message*>(nullptr), m);
}
int sd_bus_message_appendv(sd_bus_message* m, const char* types, va_list ap) {
    return forward(&BusFunctions::sd_bus_message_appendv, -ELIBACC, m, types, ap);
}
int sd_bus_message_append(sd_bus_message* m, const char* types, ...) {
    va_list ap;
    va_start(ap, types);
    const int r = sd_bus_message_appendv(m, types, ap);
    va_end(ap);
    return r;
}
int sd_bus_message_readv(sd_bus_message* m, const char* types, va_list ap) {
    return forward(&BusFunctions::sd_bus_message_readv, -ELIBACC, m, types, ap);
}
int sd_bus_message_read(sd_bus_message* m, const char* types, ...) {
    va_list ap;
    va_start(ap, types);
    const int r = sd_bus_message_readv(m, types, ap);
    va_end(ap);
    return r;
}
int sd_bus_message_read_basic(sd_bus_message* m, char type, void* p) {
    return forward(&BusFunctions::sd_bus_message_read_basic, -ELIBACC, m, type, p);
}
int sd_bus_message_read_array(sd_bus_message* m, char type, const void** ptr, size_t* size) {
    return forward(&BusFunctions::sd_bus_message_read_array, -ELIBACC, m, type, ptr, size);
}
int sd_bus_message_skip(sd_bus_message* m, const char* types) {
    return forward(&BusFunctions::sd_bus_message_skip, -ELIBACC, m, types);
}
int sd_bus_message_peek_type(sd_bus_message* m, char* type, const char** contents) {
    return forward(&BusFunctions::sd_bus_message_peek_type, -ELIBACC, m, type, contents);
}
int sd_bus_message_at_end(sd_bus_message* m, int complete) {
    return forward(&BusFunctions::sd_bus_message_at_end, -ELIBACC, m, complete);
}
int sd_bus_message_rewind(sd_bus_message* m, int complete) {
    return forward(&BusFunctions::sd_bus_message_rewind, -ELIBACC, m, complete);
}
int sd_bus_message_copy(sd_bus_message* m, sd_bus_message* source, int all) {
    return forward(&BusFunctions::sd_bus_message_copy, -ELIBACC, m, source, all);
}
int sd_bus_message_open_container(sd_bus_message* m, char type, const char* contents) {
    return forward(&BusFunctions::sd_bus_message_open_container, -ELIBACC, m, type, contents);
}
int sd_bus_message_close_container(sd_bus_message* m) {
    return forward(&BusFunctions::sd_bus_message_close_container, -ELIBACC, m);
}
int sd_bus_message_enter_container(sd_bus_message* m, char type, const char* contents) {
    return forward(&BusFunctions::sd_bus_message_enter_container, -ELIBACC, m, type, contents);
}
int sd_bus_message_exit_container(sd_bus_message* m) {
    return forward(&BusFunctions::sd_bus_message_exit_container, -ELIBACC, m);
}
int sd_bus_message_set_auto_start(sd_bus_message* m, int b) {
    return forward(&BusFunctions::sd_bus_message_set_auto_start, -ELIBACC, m, b);
}
const char* sd_bus_message_get_member(sd_bus_message* m) {
    return forward(&BusFunctions::sd_bus_message_get_member, static_cast<const char*>(nullptr), m);
}
const char* sd_bus_message_get_path(sd_bus_message* m) {
    return forward(&BusFunctions::sd_bus_message_get_path, static_cast<const char*>(nullptr), m);
}
const char* sd_bus_message_get_interface(sd_bus_message* m) {
    return forward(&BusFunctions::sd_bus_message_get_interface, static_cast<const char*>(nullptr), m);
}
const sd_bus_error* sd_bus_message_get_error(sd_bus_message* m) {
    return forward(&BusFunctions::sd_bus_message_get_error, static_cast<const sd_bus_error*>(nullptr), m);
}

// An error object can exist without the library (SD_BUS_ERROR_NULL on the
// stack): one that nothing filled in holds nothing to free and is not set.
void sd_bus_error_free(sd_bus_error* e) {
    if (const BusFunctions* functions = netvane::bus::loaded()) functions->sd_bus_error_free(e);
}
int sd_bus_error_is_set(const sd_bus_error* e) {
    const BusFunctions* functions = netvane::bus::loaded();
    return functions ? functions->sd_bus_error_is_set(e) : (e && e->name);
}

}  // extern "C"
