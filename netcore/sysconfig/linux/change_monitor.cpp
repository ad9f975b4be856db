#include "netcore/sysconfig/linux/change_monitor.h"

#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <time.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "netcore/sysconfig/linux/bus.h"
#include "netcore/sysconfig/linux/kernel_network.h"
#include "netcore/sysconfig/linux/network_manager.h"
#include "support/unique_fd.h"

namespace netvane {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";
constexpr const char* kOwnerMatch =
    "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',member='NameOwnerChanged',"
    "arg0='org.freedesktop.NetworkManager'";
constexpr unsigned kGroups[] = {RTNLGRP_LINK,       RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR, RTNLGRP_IPV4_ROUTE,
                                 RTNLGRP_IPV6_ROUTE, RTNLGRP_IPV4_RULE,   RTNLGRP_IPV6_RULE};

Result<NetlinkSocket> subscribe(int receiveBuffer) {
    NetlinkSocket events(nv_nl_open(NETLINK_ROUTE));
    if (!events) return posixError(errno, "open a routing netlink socket");
    const int fd = nv_nl_fd(events.get());
    // Root may raise the buffer past the system's default limit; others get what the limit allows.
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBuffer, sizeof receiveBuffer) != 0) {
        (void)::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    for (unsigned group : kGroups) {
        if (!nv_nl_join(events.get(), group)) return posixError(errno, "subscribe to routing events");
    }
    return events;
}

const char* orEmpty(const char* text) { return text ? text : ""; }

timespec untilDeadline(Clock::time_point deadline) {
    const auto left = std::max(Clock::duration::zero(), deadline - Clock::now());
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
    return timespec{static_cast<time_t>(seconds.count()),
                    static_cast<long>(std::chrono::duration_cast<std::chrono::nanoseconds>(left - seconds).count())};
}

std::optional<std::string> profileUUID(sd_bus* bus, const char* path) {
    auto request = bus::methodCall(bus, nm::kService, path, nm::kProfileInterface, "GetSettings");
    if (!request) return std::nullopt;
    auto reply = bus::call(bus, request->get());
    if (!reply) return std::nullopt;
    auto settings = bus::readValue(reply->get());
    if (!settings) return std::nullopt;
    auto profile = nm::profileFrom(path, *settings, 0);
    if (!profile) return std::nullopt;
    return profile->uuid;
}

std::optional<std::string> activeUUID(sd_bus* bus, const char* path) {
    auto request = bus::methodCall(bus, nm::kService, path, kPropertiesInterface, "Get");
    if (!request) return std::nullopt;
    if (bus::sd().sd_bus_message_append(request->get(), "ss", nm::kActiveInterface, "Uuid") < 0) return std::nullopt;
    auto reply = bus::call(bus, request->get());
    if (!reply) return std::nullopt;
    auto uuid = bus::readValue(reply->get());
    if (!uuid || !uuid->string()) return std::nullopt;
    return *uuid->string();
}

}  // namespace

struct ChangeMonitor::State {
    Report report;
    UniqueFd stop;
    NetlinkSocket events;
    NetlinkSocket requests;
    LinkReader readLinks;
    // After a failed re-read: when to try again.
    std::optional<Clock::time_point> reread;
    bus::Bus bus;  // null: the kernel alone
    bus::Slot signals, owner;
    KernelChangeTracker kernel;
    NetworkManagerChangeTracker manager;
    KeySet pending;
    Clock::time_point first, last;
    std::shared_ptr<std::atomic<unsigned>> overruns;
    std::thread thread;

    Status open(int receiveBuffer) {
        stop = UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (!stop) return posixError(errno, "create an event descriptor");
        auto subscribed = subscribe(receiveBuffer);
        if (!subscribed) return subscribed.error();
        events = std::move(*subscribed);
        requests = kernel::openRoutingSocket();
        if (!requests) return posixError(errno, "open a routing netlink socket");
        if (!readLinks) readLinks = kernel::dumpLinks;
        // Subscribed first, baseline second: a change in between is reported, not lost.
        auto links = readLinks(requests.get());
        if (!links) return links.error();
        kernel.reset(*links, kernel::primaryRoute(requests.get(), AF_INET),
                     kernel::primaryRoute(requests.get(), AF_INET6));
        openBus();
        return {};
    }

    // After events were lost (`lost`), or to try a failed re-read again: the
    // links as they are now. When they cannot be read, the ones known so far
    // stay, and what lost events may have changed is reported once.
    void rereadLinks(bool lost) {
        auto links = readLinks(requests.get());
        if (links) {
            kernel.resync(*links, pending);
            reread.reset();
            return;
        }
        if (lost) kernel.unsure(pending);
        reread = Clock::now() + kRereadRetry;
    }

    void openBus() {
        auto opened = bus::openSystemBus();
        if (!opened) return;  // no bus: the kernel alone
        sd_bus_slot* raw = nullptr;
        if (bus::sd().sd_bus_match_signal(opened->get(), &raw, nm::kService, nullptr, nullptr, nullptr,
                                          &State::onSignal, this) < 0) {
            return;
        }
        signals.reset(raw);
        raw = nullptr;
        if (bus::sd().sd_bus_add_match(opened->get(), &raw, kOwnerMatch, &State::onOwnerChanged, this) < 0) {
            signals.reset();
            return;
        }
        owner.reset(raw);
        bus = std::move(*opened);
        if (auto state = nm::load(bus.get())) manager.reset(*state);
    }

    void closeBus() {
        signals.reset();
        owner.reset();
        bus.reset();
    }

    static int onOwnerChanged(sd_bus_message* message, void* context, sd_bus_error*) {
        auto* self = static_cast<State*>(context);
        const char *name = nullptr, *before = nullptr, *after = nullptr;
        if (bus::sd().sd_bus_message_read(message, "sss", &name, &before, &after) < 0) return 0;
        self->manager.managerLost(self->pending);
        if (after && *after) {
            if (auto state = nm::load(self->bus.get())) {
                self->manager.reset(*state);
                for (const nm::Profile& profile : state->profiles) {
                    self->manager.profileChanged(profile.path, profile.uuid, self->pending);
                }
                for (const nm::ActiveConnection& active : state->active) {
                    self->manager.activeChanged(active.path, active.uuid, self->pending);
                }
            }
        }
        return 0;
    }

    static int onSignal(sd_bus_message* message, void* context, sd_bus_error*) {
        static_cast<State*>(context)->signal(message);
        return 0;
    }

    void signal(sd_bus_message* message) {
        const std::string_view interface = orEmpty(bus::sd().sd_bus_message_get_interface(message));
        const std::string_view member = orEmpty(bus::sd().sd_bus_message_get_member(message));
        const char* path = orEmpty(bus::sd().sd_bus_message_get_path(message));
        sd_bus* connection = bus.get();
        if (interface == nm::kSettingsInterface && (member == "NewConnection" || member == "ConnectionRemoved")) {
            const char* profile = nullptr;
            if (bus::sd().sd_bus_message_read(message, "o", &profile) < 0) return;
            if (member == "ConnectionRemoved") {
                manager.profileRemoved(profile, pending);
            } else if (auto uuid = profileUUID(connection, profile)) {
                manager.profileChanged(profile, *uuid, pending);
            }
        } else if (interface == nm::kProfileInterface && member == "Updated") {
            if (auto uuid = profileUUID(connection, path)) manager.profileChanged(path, *uuid, pending);
        } else if (interface == nm::kActiveInterface && member == "StateChanged") {
            activeTouched(path);
        } else if (interface == kPropertiesInterface && member == "PropertiesChanged") {
            propertiesChanged(message, path);
        }
    }

    void activeTouched(const char* path) {
        if (manager.activeTouched(path, pending)) return;
        if (auto uuid = activeUUID(bus.get(), path)) manager.activeChanged(path, *uuid, pending);
    }

    void propertiesChanged(sd_bus_message* message, const char* path) {
        const char* of = nullptr;
        if (bus::sd().sd_bus_message_read(message, "s", &of) < 0) return;
        const std::string_view interface = of;
        if (interface == nm::kProfileInterface) {
            if (!manager.profileTouched(path, pending)) {
                if (auto uuid = profileUUID(bus.get(), path)) manager.profileChanged(path, *uuid, pending);
            }
        } else if (interface == nm::kActiveInterface) {
            activeTouched(path);
        } else if (interface == nm::kManagerInterface) {
            auto changed = bus::readValue(message);
            if (!changed) return;
            const plist::Value* list = changed->find("ActiveConnections");
            if (!list || !list->array()) return;
            std::vector<std::string> paths;
            for (const plist::Value& entry : *list->array()) {
                if (entry.string()) paths.push_back(*entry.string());
            }
            for (const std::string& added : manager.activeListIs(paths, pending)) activeTouched(added.c_str());
        }
    }

    void event(const nlmsghdr* m, bool& routing) {
        switch (m->nlmsg_type) {
            case RTM_NEWLINK: case RTM_DELLINK:
                if (auto link = kernel::parseLink(m)) kernel.linkChanged(*link, m->nlmsg_type == RTM_DELLINK, pending);
                routing = true;
                break;
            case RTM_NEWADDR: case RTM_DELADDR:
                if (auto address = kernel::parseAddress(m)) kernel.addressChanged(*address, pending);
                routing = true;
                break;
            case RTM_NEWROUTE: case RTM_DELROUTE: case RTM_NEWRULE: case RTM_DELRULE:
                routing = true;
                break;
            default: break;
        }
    }

    // Reads every event the kernel has queued; false when it dropped some.
    bool drainKernel(bool& routing) {
        struct Visit {
            State* state;
            bool* routing;
        } visit{this, &routing};
        return nv_nl_drain(
                   events.get(),
                   [](const nlmsghdr* m, void* raw) {
                       auto* v = static_cast<Visit*>(raw);
                       v->state->event(m, *v->routing);
                   },
                   &visit) != 0;
    }

    void run() {
        pollfd fds[3] = {{stop.get(), POLLIN, 0}, {nv_nl_fd(events.get()), POLLIN, 0}, {-1, 0, 0}};
        for (;;) {
            std::optional<Clock::time_point> deadline = reread;
            if (!pending.empty()) {
                const Clock::time_point batch = std::min(last + kQuiet, first + kMaxHold);
                deadline = deadline ? std::min(*deadline, batch) : batch;
            }
            fds[2] = {-1, 0, 0};
            if (bus) {
                fds[2] = {bus::sd().sd_bus_get_fd(bus.get()),
                          static_cast<short>(bus::sd().sd_bus_get_events(bus.get())), 0};
                std::uint64_t when = 0;  // CLOCK_MONOTONIC microseconds, as steady_clock here
                if (bus::sd().sd_bus_get_timeout(bus.get(), &when) >= 0 && when != UINT64_MAX) {
                    const Clock::time_point busDeadline{std::chrono::microseconds(when)};
                    deadline = deadline ? std::min(*deadline, busDeadline) : busDeadline;
                }
            }
            timespec wait{};
            if (deadline) wait = untilDeadline(*deadline);
            const int ready = ::ppoll(fds, bus ? 3 : 2, deadline ? &wait : nullptr, nullptr);
            if (ready < 0 && errno != EINTR) return;
            if (fds[0].revents) return;

            const std::size_t before = pending.size();
            bool routing = false;
            if (fds[1].revents && !drainKernel(routing)) {
                if (overruns) ++*overruns;
                routing = true;
                rereadLinks(true);
            } else if (reread && Clock::now() >= *reread) {
                rereadLinks(false);
            }
            if (routing) {
                kernel.primariesAre(kernel::primaryRoute(requests.get(), AF_INET),
                                    kernel::primaryRoute(requests.get(), AF_INET6), pending);
            }
            if (bus) {
                int r = 0;
                while ((r = bus::sd().sd_bus_process(bus.get(), nullptr)) > 0) {
                }
                if (r < 0) {
                    // The bus went away; what NetworkManager said may no longer hold.
                    manager.managerLost(pending);
                    closeBus();
                }
            }
            const Clock::time_point now = Clock::now();
            // Any kernel event holds a pending batch open, not only one that adds a
            // key: one change often arrives as several messages about the same key.
            if (pending.size() != before || (before != 0 && fds[1].revents)) {
                if (before == 0) first = now;
                last = now;
            }
            if (!pending.empty() && now >= std::min(last + kQuiet, first + kMaxHold)) {
                report(std::exchange(pending, {}));
            }
        }
    }
};

ChangeMonitor::ChangeMonitor(std::unique_ptr<State> state) : state_(std::move(state)) {}

Result<std::unique_ptr<ChangeMonitor>> ChangeMonitor::start(Report report, Options options) {
    auto state = std::make_unique<State>();
    state->report = std::move(report);
    state->overruns = std::move(options.overruns);
    state->readLinks = std::move(options.readLinks);
    if (auto opened = state->open(options.receiveBuffer); !opened) return opened.error();
    State* raw = state.get();
    state->thread = std::thread([raw] { raw->run(); });
    return std::unique_ptr<ChangeMonitor>(new ChangeMonitor(std::move(state)));
}

ChangeMonitor::~ChangeMonitor() {
    const std::uint64_t one = 1;
    if (::write(state_->stop.get(), &one, sizeof one) < 0) {
        // An eventfd write fails only on overflow, which one write cannot cause.
    }
    if (state_->thread.joinable()) state_->thread.join();
}

}  // namespace netvane
