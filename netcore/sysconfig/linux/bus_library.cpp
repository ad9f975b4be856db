#include "netcore/sysconfig/linux/bus_library.h"

#include <dlfcn.h>

#include <cerrno>
#include <cstring>
#include <type_traits>

#include "netcore/sysconfig/linux/bus.h"

namespace netvane::bus {
namespace {

Error loadFailure(std::string reason) { return Error{kBusErrorDomain, ELIBACC, std::move(reason)}; }

// What a function answers without the library: a bus cannot be made, so
// there is no object to act on.
template <class R>
R unavailable() {
    if constexpr (std::is_void_v<R>) {
        return;
    } else if constexpr (std::is_pointer_v<R>) {
        return nullptr;
    } else {
        return -ELIBACC;
    }
}

template <class Function>
struct StandIn;
template <class R, class... Args>
struct StandIn<R (*)(Args...)> {
    static R call(Args...) { return unavailable<R>(); }
};
template <class R, class... Args>
struct StandIn<R (*)(Args..., ...)> {
    static R call(Args..., ...) { return unavailable<R>(); }
};

BusLibrary standIns() {
    BusLibrary table;
#define NV_BUS_STAND_IN(name) table.name = &StandIn<decltype(&::name)>::call;
    NV_BUS_FUNCTIONS(NV_BUS_STAND_IN)
#undef NV_BUS_STAND_IN
    // An error object exists without the library (SD_BUS_ERROR_NULL on the
    // stack): one that nothing filled in is not set.
    table.sd_bus_error_is_set = [](const sd_bus_error* e) -> int { return e && e->name; };
    return table;
}

struct ProcessLibrary {
    Result<std::shared_ptr<const BusLibrary>> loaded = loadBusLibrary(kBusLibraryName);
    BusLibrary fallback = standIns();
};

// Tried once; later calls see the same outcome. Never destroyed: a
// connection held by a static object is closed at exit, possibly after a
// static table would already be gone.
const ProcessLibrary& processLibrary() {
    static const auto* library = new ProcessLibrary();
    return *library;
}

}  // namespace

Result<std::shared_ptr<const BusLibrary>> loadBusLibrary(const char* name) {
    // Local: the library's names must not interpose on anything else the
    // process loads later.
    void* handle = ::dlopen(name, RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* reason = ::dlerror();
        return loadFailure(std::string("cannot load ") + name + ": " + (reason ? reason : "unknown reason"));
    }
    auto functions = std::make_shared<BusLibrary>();
    const char* missing = nullptr;
#define NV_BUS_RESOLVE(symbol)                                                                           \
    if (!missing) {                                                                                      \
        functions->symbol = reinterpret_cast<decltype(&::symbol)>(::dlsym(handle, #symbol));             \
        if (!functions->symbol) missing = #symbol;                                                       \
    }
    NV_BUS_FUNCTIONS(NV_BUS_RESOLVE)
#undef NV_BUS_RESOLVE
    if (missing) {
        const char* reason = ::dlerror();
        Error failure = loadFailure(std::string("cannot load ") + name + ": it lacks " + missing +
                                    (reason ? std::string(" (") + reason + ")" : std::string()));
        ::dlclose(handle);
        return failure;
    }
    return std::shared_ptr<const BusLibrary>(std::move(functions));
}

const BusLibrary& sd() {
    const ProcessLibrary& library = processLibrary();
    return library.loaded ? **library.loaded : library.fallback;
}

std::string busLibraryFailure() {
    const auto& library = processLibrary().loaded;
    return library ? std::string() : library.error().message;
}

std::string describeBusResult(int negativeErrno) {
    if (negativeErrno == -ELIBACC) {
        if (std::string failure = busLibraryFailure(); !failure.empty()) return failure;
    }
    return std::strerror(-negativeErrno);
}

}  // namespace netvane::bus
