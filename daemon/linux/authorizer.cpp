#include "daemon/linux/authorizer.h"

#include <systemd/sd-bus.h>

#include <memory>
#include <string>

#include "netcore/sysconfig/linux/bus.h"
#include "netcore/sysconfig/linux/bus_library.h"

namespace netvane {
namespace {

constexpr const char* kAuthorityDomain = "netvane.authority";
// The authority answers at once when no interaction is allowed; this bounds
// a hung service.
constexpr std::uint64_t kCallTimeoutMicroseconds = 10'000'000;

using bus::Bus;
using bus::Message;

Error busError(int result, const std::string& what) {
    return Error{kAuthorityDomain, -result, what + ": " + bus::describeBusResult(result)};
}

}  // namespace

Status PolkitAuthorizer::checkRight(const PeerIdentity& peer, std::span<const std::uint8_t>, std::string_view right) {
    // The external form carries nothing on Linux: the right belongs to the
    // peer process, which the authority identifies by pid, start time and uid.
    sd_bus* rawBus = nullptr;
    int r = bus::sd().sd_bus_open_system(&rawBus);
    if (r < 0) return busError(r, "connect to the system bus");
    Bus bus(rawBus);

    sd_bus_message* rawCall = nullptr;
    r = bus::sd().sd_bus_message_new_method_call(bus.get(), &rawCall, "org.freedesktop.PolicyKit1",
                                       "/org/freedesktop/PolicyKit1/Authority", "org.freedesktop.PolicyKit1.Authority",
                                       "CheckAuthorization");
    if (r < 0) return busError(r, "build CheckAuthorization");
    Message call(rawCall);
    const std::string action(right);
    r = bus::sd().sd_bus_message_append(call.get(), "(sa{sv})", "unix-process", 3, "pid", "u",
                                        static_cast<std::uint32_t>(peer.pid), "start-time", "t", peer.startTime, "uid",
                                        "i", static_cast<std::int32_t>(peer.uid));
    if (r >= 0) r = bus::sd().sd_bus_message_append(call.get(), "s", action.c_str());
    if (r >= 0) r = bus::sd().sd_bus_message_append(call.get(), "a{ss}", 0);
    if (r >= 0) r = bus::sd().sd_bus_message_append(call.get(), "us", 0u, "");  // flags 0: no interaction
    if (r < 0) return busError(r, "build CheckAuthorization");

    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* rawReply = nullptr;
    r = bus::sd().sd_bus_call(bus.get(), call.get(), kCallTimeoutMicroseconds, &error, &rawReply);
    if (r < 0) {
        Error failure{kAuthorityDomain, -r, std::string("CheckAuthorization: ") + (error.message ? error.message : "failed")};
        bus::sd().sd_bus_error_free(&error);
        return failure;
    }
    Message reply(rawReply);
    int authorized = 0, challenge = 0;
    r = bus::sd().sd_bus_message_enter_container(reply.get(), 'r', "bba{ss}");
    if (r >= 0) r = bus::sd().sd_bus_message_read(reply.get(), "bb", &authorized, &challenge);
    if (r < 0) return busError(r, "read CheckAuthorization reply");
    if (!authorized) return Error{kAuthorityDomain, 1, "the authority did not grant " + action};
    return {};
}

}  // namespace netvane
