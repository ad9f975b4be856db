#include "netcore/interfaces/linux/kernel_links.h"

// The C library's address headers first: the kernel's IPv6 header then
// leaves their definitions alone.
#include <dirent.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/utsname.h>

#include <linux/if_addr.h>
#include <linux/ipv6.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "netcore/shim/linux/nv_linux.h"
#include "support/unique_fd.h"

namespace netvane {
namespace {

constexpr int kDumpAttempts = 3;

struct StatsEntry {
    int index = 0;
    std::uint8_t bytes[sizeof(rtnl_link_stats64)] = {};
    std::size_t length = 0;
};

struct Collected {
    KernelLinks result;
    std::vector<StatsEntry> stats;
    bool parentsNamed = false;                // the link dump names parent devices
    std::unordered_set<int> withParent;      // ... and these have one
};

// Copies a string attribute into a name field; false when it does not fit.
bool copyString(const rtattr* attribute, char (&into)[IF_NAMESIZE]) {
    const char* text = static_cast<const char*>(RTA_DATA(attribute));
    const std::size_t length = strnlen(text, RTA_PAYLOAD(attribute));
    if (length >= sizeof into) return false;
    std::memcpy(into, text, length);
    into[length] = '\0';
    return true;
}

// Visits the attributes that follow a message's header, or that one
// attribute nests.
template <typename Visit>
void forEachAttribute(const rtattr* first, int length, Visit visit) {
    for (const rtattr* a = first; RTA_OK(a, length); a = RTA_NEXT(a, length)) visit(a);
}

template <typename Visit>
void forEachNested(const rtattr* parent, Visit visit) {
    forEachAttribute(static_cast<const rtattr*>(RTA_DATA(parent)), static_cast<int>(RTA_PAYLOAD(parent)), visit);
}

void readInet6Settings(const rtattr* settings, KernelLink& link) {
    const std::size_t count = RTA_PAYLOAD(settings) / sizeof(std::int32_t);
    if (count <= DEVCONF_ACCEPT_RA || count <= DEVCONF_DISABLE_IPV6 || count <= DEVCONF_ACCEPT_DAD) return;
    const auto value = [&](std::size_t i) {
        std::int32_t v = 0;
        std::memcpy(&v, static_cast<const std::uint8_t*>(RTA_DATA(settings)) + i * sizeof v, sizeof v);
        return v;
    };
    link.inet6 = {value(DEVCONF_ACCEPT_RA), value(DEVCONF_DISABLE_IPV6), value(DEVCONF_ACCEPT_DAD)};
}

void findInet6Settings(const rtattr* inet6, KernelLink& link) {
    forEachNested(inet6, [&](const rtattr* setting) {
        if (setting->rta_type == IFLA_INET6_CONF) readInet6Settings(setting, link);
    });
}

// A link message of either dump: the full one keeps the IPv6 settings among
// the per-family ones and carries the statistics; the IPv6 one keeps them as
// its protocol information.
void addLink(const nlmsghdr* message, void* context) {
    if (message->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) return;
    auto& collected = *static_cast<Collected*>(context);
    const auto* info = static_cast<const ifinfomsg*>(NLMSG_DATA(message));
    KernelLink link;
    link.index = info->ifi_index;
    link.flags = info->ifi_flags;
    link.type = info->ifi_type;
    bool named = false, parent = false;
    const rtattr* stats = nullptr;
    forEachAttribute(IFLA_RTA(info), static_cast<int>(IFLA_PAYLOAD(message)), [&](const rtattr* a) {
        switch (a->rta_type) {
        case IFLA_IFNAME: named = copyString(a, link.name); break;
        case IFLA_ADDRESS:
            link.addressLength = RTA_PAYLOAD(a);
            if (link.addressLength <= kLinkAddressMax) std::memcpy(link.address, RTA_DATA(a), link.addressLength);
            break;
        case IFLA_MTU:
            if (RTA_PAYLOAD(a) >= sizeof link.mtu) std::memcpy(&link.mtu, RTA_DATA(a), sizeof link.mtu);
            break;
        case IFLA_STATS64: stats = a; break;
        case IFLA_PARENT_DEV_NAME: parent = true; break;
        case IFLA_PROTINFO:
            if (info->ifi_family == AF_INET6) findInet6Settings(a, link);
            break;
        case IFLA_AF_SPEC:
            forEachNested(a, [&](const rtattr* family) {
                if (family->rta_type == AF_INET6) findInet6Settings(family, link);
            });
            break;
        default: break;
        }
    });
    if (!named) return;
    if (stats != nullptr && RTA_PAYLOAD(stats) >= NV_LINUX_STATS64_MIN) {
        nv_ifdata_t data{};
        nv_linux_ifdata(RTA_DATA(stats), RTA_PAYLOAD(stats), link.mtu, link.type, &data);
        link.data = data;
    }
    if (parent) collected.withParent.insert(link.index);
    collected.result.links.push_back(link);
}

void addStats(const nlmsghdr* message, void* context) {
    const std::size_t header = NLMSG_ALIGN(sizeof(if_stats_msg));
    if (message->nlmsg_len < NLMSG_LENGTH(header)) return;
    const auto* info = static_cast<const if_stats_msg*>(NLMSG_DATA(message));
    StatsEntry entry;
    entry.index = static_cast<int>(info->ifindex);
    const auto* first = reinterpret_cast<const rtattr*>(reinterpret_cast<const std::uint8_t*>(info) + header);
    forEachAttribute(first, static_cast<int>(message->nlmsg_len - NLMSG_LENGTH(header)), [&](const rtattr* a) {
        if (a->rta_type != IFLA_STATS_LINK_64) return;
        entry.length = std::min<std::size_t>(RTA_PAYLOAD(a), sizeof entry.bytes);
        std::memcpy(entry.bytes, RTA_DATA(a), entry.length);
    });
    static_cast<Collected*>(context)->stats.push_back(entry);
}

void addAddress(const nlmsghdr* message, void* context) {
    if (message->nlmsg_len < NLMSG_LENGTH(sizeof(ifaddrmsg))) return;
    const auto* info = static_cast<const ifaddrmsg*>(NLMSG_DATA(message));
    if (info->ifa_family != AF_INET && info->ifa_family != AF_INET6) return;
    const std::size_t size = info->ifa_family == AF_INET ? 4 : 16;
    KernelAddress address;
    address.family = info->ifa_family;
    address.prefixLength = info->ifa_prefixlen;
    address.index = static_cast<int>(info->ifa_index);
    address.flags = info->ifa_flags;
    const rtattr* destination = nullptr;
    const rtattr* local = nullptr;
    forEachAttribute(IFA_RTA(info), static_cast<int>(IFA_PAYLOAD(message)), [&](const rtattr* a) {
        const bool sized = RTA_PAYLOAD(a) == size;
        switch (a->rta_type) {
        case IFA_ADDRESS:
            if (sized) destination = a;
            break;
        case IFA_LOCAL:
            if (sized) local = a;
            break;
        case IFA_BROADCAST:
            if (sized) {
                std::memcpy(address.broadcast, RTA_DATA(a), size);
                address.hasBroadcast = true;
            }
            break;
        case IFA_LABEL: copyString(a, address.label); break;
        case IFA_FLAGS:
            if (RTA_PAYLOAD(a) >= sizeof address.flags) std::memcpy(&address.flags, RTA_DATA(a), sizeof address.flags);
            break;
        default: break;
        }
    });
    // IFA_ADDRESS is the local address, or the peer's on a point-to-point
    // link, where IFA_LOCAL holds the local one.
    if (local == nullptr) local = destination;
    if (local == nullptr) return;
    std::memcpy(address.local, RTA_DATA(local), size);
    if (destination != nullptr && std::memcmp(RTA_DATA(destination), address.local, size) != 0) {
        std::memcpy(address.peer, RTA_DATA(destination), size);
        address.hasPeer = true;
    }
    static_cast<Collected*>(context)->result.addresses.push_back(address);
}

// One dump; `changed` turns true when the kernel flags it as having run into
// a change.
template <typename Header>
bool dump(int fd, std::uint16_t request, std::uint16_t reply, Header header, nv_linux_visit_t visit,
          Collected& collected, bool& changed) {
    struct {
        nlmsghdr message;
        Header header;
    } r{};
    r.message.nlmsg_len = sizeof r;
    r.message.nlmsg_type = request;
    r.message.nlmsg_seq = request;
    r.header = header;
    int interrupted = 0;
    if (!nv_linux_netlink_dump(fd, &r.message, reply, visit, &collected, &interrupted)) return false;
    changed = changed || interrupted != 0;
    return true;
}

// The links in statistics order with their statistics, when the IPv6 dump
// had every one of them.
bool joinStatistics(Collected& collected) {
    std::unordered_map<int, std::size_t> byIndex(collected.result.links.size());
    for (std::size_t i = 0; i < collected.result.links.size(); ++i) byIndex.emplace(collected.result.links[i].index, i);
    std::vector<KernelLink> joined;
    joined.reserve(collected.stats.size());
    for (const StatsEntry& stats : collected.stats) {
        auto found = byIndex.find(stats.index);
        if (found == byIndex.end()) return false;
        KernelLink link = collected.result.links[found->second];
        if (stats.length >= NV_LINUX_STATS64_MIN) {
            nv_ifdata_t data{};
            nv_linux_ifdata(stats.bytes, stats.length, link.mtu, link.type, &data);
            link.data = data;
        }
        joined.push_back(link);
    }
    collected.result.links = std::move(joined);
    return true;
}

// Kernels from 5.19 on name a link's parent device in the full link dump.
bool kernelNamesParents() {
    utsname system{};
    int major = 0, minor = 0;
    if (::uname(&system) != 0 || std::sscanf(system.release, "%d.%d", &major, &minor) != 2) return false;
    return major > 5 || (major == 5 && minor >= 19);
}

std::unordered_set<std::string> directoryNames(const char* path) {
    std::unordered_set<std::string> names;
    DIR* dir = ::opendir(path);
    if (dir == nullptr) return names;
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] != '.') names.insert(entry->d_name);
    }
    ::closedir(dir);
    return names;
}

// Which links a device backs. Without parent names in the dump, sysfs says:
// a backed interface is listed among the network interfaces but not among
// the virtual devices. IMPORTANT: sysfs shows the network namespace it was
// mounted in, so a caller in a namespace of its own needs its own mount.
void markHardware(Collected& collected) {
    std::unordered_set<std::string> listed, virtualOnes;
    if (!collected.parentsNamed) {
        listed = directoryNames("/sys/class/net");
        virtualOnes = directoryNames("/sys/devices/virtual/net");
    }
    for (KernelLink& link : collected.result.links) {
        if (link.type == ARPHRD_LOOPBACK) continue;
        link.hardware = collected.parentsNamed ? collected.withParent.contains(link.index)
                                               : listed.contains(link.name) && !virtualOnes.contains(link.name);
    }
}

}  // namespace

std::optional<KernelLinks> readKernelLinks() {
    UniqueFd fd(nv_linux_netlink_socket());
    if (!fd) return std::nullopt;
    for (int attempt = 1;; ++attempt) {
        Collected collected;
        bool changed = false;
        ifinfomsg links{};
        links.ifi_family = AF_INET6;
        if_stats_msg stats{};
        stats.filter_mask = IFLA_STATS_FILTER_BIT(IFLA_STATS_LINK_64);
        bool compact = dump(fd.get(), RTM_GETLINK, RTM_NEWLINK, links, addLink, collected, changed) &&
                       dump(fd.get(), RTM_GETSTATS, RTM_NEWSTATS, stats, addStats, collected, changed) &&
                       joinStatistics(collected);
        if (!compact) {
            collected = Collected{};
            links.ifi_family = AF_UNSPEC;
            if (!dump(fd.get(), RTM_GETLINK, RTM_NEWLINK, links, addLink, collected, changed)) return std::nullopt;
            collected.parentsNamed = kernelNamesParents();
        }
        if (!dump(fd.get(), RTM_GETADDR, RTM_NEWADDR, ifaddrmsg{}, addAddress, collected, changed)) {
            return std::nullopt;
        }
        // A dump that ran into a change may have skipped or repeated an
        // interface; a fresh one is cheap.
        if (!changed || attempt == kDumpAttempts) {
            markHardware(collected);
            return std::move(collected.result);
        }
    }
}

}  // namespace netvane
