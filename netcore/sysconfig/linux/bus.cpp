#include "netcore/sysconfig/linux/bus.h"

#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "netcore/sysconfig/linux/bus_library.h"

namespace netvane::bus {
namespace {

#define NV_SYSTEM_BUS_SOCKET "/run/dbus/system_bus_socket"
constexpr const char* kDefaultSystemBusSocket = NV_SYSTEM_BUS_SOCKET;
constexpr const char* kDefaultSystemBus = "unix:path=" NV_SYSTEM_BUS_SOCKET;

std::uint64_t nowMicroseconds() {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now().time_since_epoch())
            .count());
}

std::uint64_t timeoutMicroseconds() { return static_cast<std::uint64_t>(kCallTimeout.count()); }

// Runs the connection until `done` holds or the deadline passes.
template <class Done>
int runUntil(sd_bus* bus, std::uint64_t deadline, Done done) {
    while (!done()) {
        int r = sd().sd_bus_process(bus, nullptr);
        if (r < 0) return r;
        if (r > 0) continue;
        const std::uint64_t now = nowMicroseconds();
        if (now >= deadline) return -ETIMEDOUT;
        r = sd().sd_bus_wait(bus, deadline - now);
        if (r < 0 && r != -EINTR) return r;
    }
    return 0;
}

std::string basicText(sd_bus_message* message, char type, int& r) {
    union {
        std::uint8_t y;
        int b;
        std::int16_t n;
        std::uint16_t q;
        std::int32_t i;
        std::uint32_t u;
        std::int64_t x;
        std::uint64_t t;
        double d;
        const char* s;
    } v{};
    r = sd().sd_bus_message_read_basic(message, type, &v);
    if (r <= 0) return "";
    switch (type) {
        case 'y': return std::to_string(v.y);
        case 'b': return v.b ? "true" : "false";
        case 'n': return std::to_string(v.n);
        case 'q': return std::to_string(v.q);
        case 'i': return std::to_string(v.i);
        case 'u': return std::to_string(v.u);
        case 'x': return std::to_string(v.x);
        case 't': return std::to_string(v.t);
        case 'd': return std::to_string(v.d);
        case 's': case 'o': case 'g': return v.s ? v.s : "";
        default: return "";
    }
}

int readInto(sd_bus_message* message, plist::Value& out);

// Every value left in the container the message is in.
int readElements(sd_bus_message* message, plist::Value& out) {
    plist::Array elements;
    int r = 0;
    while ((r = sd().sd_bus_message_at_end(message, 0)) == 0) {
        plist::Value element;
        if ((r = readInto(message, element)) <= 0) return r < 0 ? r : -EBADMSG;
        elements.push_back(std::move(element));
    }
    if (r < 0) return r;
    out = plist::Value(std::move(elements));
    return 1;
}

int readBasic(sd_bus_message* message, char type, plist::Value& out) {
    int r = 0;
    switch (type) {
        case 'b': {
            int b = 0;
            r = sd().sd_bus_message_read_basic(message, type, &b);
            out = plist::Value(b != 0);
            return r;
        }
        case 'd': {
            double d = 0;
            r = sd().sd_bus_message_read_basic(message, type, &d);
            out = plist::Value(d);
            return r;
        }
        case 't': {
            std::uint64_t t = 0;
            r = sd().sd_bus_message_read_basic(message, type, &t);
            out = plist::Value(static_cast<unsigned long long>(t));
            return r;
        }
        case 's': case 'o': case 'g': {
            out = plist::Value(basicText(message, type, r));
            return r;
        }
        case 'h': {
            int fd = -1;  // a descriptor means nothing as a value
            r = sd().sd_bus_message_read_basic(message, type, &fd);
            out = plist::Value(-1);
            return r;
        }
        default: {
            const std::string text = basicText(message, type, r);
            if (r > 0) out = plist::Value(static_cast<long long>(std::strtoll(text.c_str(), nullptr, 10)));
            return r;
        }
    }
}

int readArray(sd_bus_message* message, const char* contents, plist::Value& out) {
    if (std::strcmp(contents, "y") == 0) {
        const void* bytes = nullptr;
        std::size_t size = 0;
        int r = sd().sd_bus_message_read_array(message, 'y', &bytes, &size);
        if (r < 0) return r;
        const auto* begin = static_cast<const std::uint8_t*>(bytes);
        out = plist::Value(plist::Data(begin, begin + size));
        return 1;
    }
    int r = sd().sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, contents);
    if (r <= 0) return r < 0 ? r : -EBADMSG;
    if (contents[0] == SD_BUS_TYPE_DICT_ENTRY_BEGIN) {
        // "{kv}": the entry's own signature without the braces.
        const std::string entry(contents + 1, std::strlen(contents) - 2);
        plist::Dictionary dictionary;
        while ((r = sd().sd_bus_message_enter_container(message, SD_BUS_TYPE_DICT_ENTRY, entry.c_str())) > 0) {
            std::string key = basicText(message, entry[0], r);
            if (r <= 0) return r < 0 ? r : -EBADMSG;
            plist::Value value;
            if ((r = readInto(message, value)) <= 0) return r < 0 ? r : -EBADMSG;
            dictionary.append(std::move(key), std::move(value));
            if ((r = sd().sd_bus_message_exit_container(message)) < 0) return r;
        }
        if (r < 0) return r;
        out = plist::Value(std::move(dictionary));
    } else if ((r = readElements(message, out)) < 0) {
        return r;
    }
    r = sd().sd_bus_message_exit_container(message);
    return r < 0 ? r : 1;
}

int readInto(sd_bus_message* message, plist::Value& out) {
    char type = 0;
    const char* contents = nullptr;
    int r = sd().sd_bus_message_peek_type(message, &type, &contents);
    if (r <= 0) return r;
    switch (type) {
        case SD_BUS_TYPE_ARRAY: return readArray(message, contents, out);
        case SD_BUS_TYPE_VARIANT: {
            if ((r = sd().sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT, contents)) <= 0) return r;
            if ((r = readInto(message, out)) <= 0) return r < 0 ? r : -EBADMSG;
            r = sd().sd_bus_message_exit_container(message);
            return r < 0 ? r : 1;
        }
        case SD_BUS_TYPE_STRUCT: {
            if ((r = sd().sd_bus_message_enter_container(message, SD_BUS_TYPE_STRUCT, contents)) <= 0) return r;
            if ((r = readElements(message, out)) < 0) return r;
            r = sd().sd_bus_message_exit_container(message);
            return r < 0 ? r : 1;
        }
        default: return readBasic(message, type, out);
    }
}

}  // namespace

Error errorFrom(int negativeErrno, const std::string& doing) {
    return Error{kBusErrorDomain, -negativeErrno, doing + ": " + describeBusResult(negativeErrno)};
}

Error errorFrom(const sd_bus_error& error, const std::string& doing) {
    return Error{error.name ? error.name : kBusErrorDomain, 1,
                 doing + ": " + (error.message ? error.message : "failed")};
}

Result<Bus> openSystemBus() {
    const char* address = ::secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
    const bool usual = !address || !*address;
    // Without the usual socket there is nothing to connect to: the answer
    // connecting would give, without loading the bus library for it (most of
    // what a reading costs on a machine without a system bus).
    if (usual && ::access(kDefaultSystemBusSocket, F_OK) != 0 && errno == ENOENT) {
        return errorFrom(-ENOENT, "connect to the system bus");
    }
    sd_bus* raw = nullptr;
    int r = sd().sd_bus_new(&raw);
    if (r < 0) return errorFrom(r, "create a bus connection");
    Bus bus(raw);
    r = sd().sd_bus_set_address(bus.get(), usual ? kDefaultSystemBus : address);
    if (r >= 0) r = sd().sd_bus_set_bus_client(bus.get(), 1);
    if (r >= 0) r = sd().sd_bus_set_method_call_timeout(bus.get(), timeoutMicroseconds());
    if (r >= 0) r = sd().sd_bus_start(bus.get());
    if (r < 0) return errorFrom(r, "connect to the system bus");
    // sd_bus_start only begins the greeting; finish it within our own bound.
    r = runUntil(bus.get(), nowMicroseconds() + timeoutMicroseconds(),
                 [&] { return sd().sd_bus_is_ready(bus.get()) > 0; });
    if (r < 0) return errorFrom(r, "connect to the system bus");
    return bus;
}

Result<Message> methodCall(sd_bus* bus, const char* destination, const char* path, const char* interface,
                           const char* member) {
    sd_bus_message* raw = nullptr;
    int r = sd().sd_bus_message_new_method_call(bus, &raw, destination, path, interface, member);
    if (r < 0) return errorFrom(r, std::string("build ") + member);
    Message call(raw);
    // Asking must never start a stopped service behind its administrator's back.
    r = sd().sd_bus_message_set_auto_start(call.get(), 0);
    if (r < 0) return errorFrom(r, std::string("build ") + member);
    return call;
}

Result<Message> call(sd_bus* bus, sd_bus_message* request) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    const char* member = sd().sd_bus_message_get_member(request);
    const std::string doing = member ? member : "call";
    int r = sd().sd_bus_call(bus, request, timeoutMicroseconds(), &error, &reply);
    if (r < 0) {
        Error failure = sd().sd_bus_error_is_set(&error) ? errorFrom(error, doing) : errorFrom(r, doing);
        sd().sd_bus_error_free(&error);
        return failure;
    }
    return Message(reply);
}

std::vector<Result<Message>> callAll(sd_bus* bus, const std::vector<Message>& requests) {
    struct Pending {
        Message reply;
        bool done = false;
    };
    std::vector<Pending> pending(requests.size());
    std::vector<Slot> slots;
    std::vector<Result<Message>> results;
    results.reserve(requests.size());
    for (std::size_t i = 0; i < requests.size(); ++i) {
        sd_bus_slot* slot = nullptr;
        const int r = sd().sd_bus_call_async(
            bus, &slot, requests[i].get(),
            [](sd_bus_message* reply, void* context, sd_bus_error*) {
                auto* entry = static_cast<Pending*>(context);
                entry->reply.reset(sd().sd_bus_message_ref(reply));
                entry->done = true;
                return 0;
            },
            &pending[i], timeoutMicroseconds());
        if (r < 0) {
            pending[i].done = true;
            continue;
        }
        slots.emplace_back(slot);
    }
    // Each call times out by itself; the overall bound only guards against a
    // connection that stops telling us anything.
    const std::uint64_t deadline = nowMicroseconds() + timeoutMicroseconds() + 1'000'000;
    const int r = runUntil(bus, deadline, [&] {
        std::size_t left = 0;
        for (const Pending& entry : pending) left += entry.done ? 0 : 1;
        return left == 0;
    });
    for (std::size_t i = 0; i < requests.size(); ++i) {
        const char* member = sd().sd_bus_message_get_member(requests[i].get());
        const std::string doing = member ? member : "call";
        if (!pending[i].reply) {
            results.emplace_back(errorFrom(r < 0 ? r : -EIO, doing));
        } else if (const sd_bus_error* error = sd().sd_bus_message_get_error(pending[i].reply.get())) {
            results.emplace_back(errorFrom(*error, doing));
        } else {
            results.emplace_back(std::move(pending[i].reply));
        }
    }
    return results;  // the slots go first, cancelling whatever never answered
}

Result<plist::Value> readValue(sd_bus_message* message) {
    plist::Value value;
    const int r = readInto(message, value);
    if (r < 0) return errorFrom(r, "read a reply");
    if (r == 0) return Error{kBusErrorDomain, EBADMSG, "read a reply: no value left"};
    return value;
}

}  // namespace netvane::bus
