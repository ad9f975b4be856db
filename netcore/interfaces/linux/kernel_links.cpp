#include "netcore/interfaces/linux/kernel_links.h"

#include <dirent.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <linux/if_addr.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "netcore/shim/linux/nv_linux.h"
#include "support/unique_fd.h"

namespace netvane {
namespace {

constexpr int kDumpAttempts = 3;

// Room reserved up front for the links and addresses of a reading: pages of
// it that stay unused are never touched, so they cost nothing, while growing
// by doubling would copy and touch everything twice.
constexpr std::size_t kExpectedLinks = 512;
constexpr std::size_t kExpectedAddresses = 1024;

struct Collected {
    Collected() {
        result.links.reserve(kExpectedLinks);
        result.addresses.reserve(kExpectedAddresses);
    }

    KernelLinks result;
    // The compact way: each link's place by index, and the places in the
    // order of the statistics dump; `unmatched` when it named a link the
    // IPv6 dump did not have.
    std::unordered_map<int, std::size_t> byIndex;
    std::vector<std::size_t> statsOrder;
    bool unmatched = false;
    bool parentsNamed = false;  // the link dump names parent devices
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

// Visits the attributes that follow a message's header.
template <typename Visit>
void forEachAttribute(const rtattr* first, int length, Visit visit) {
    for (const rtattr* a = first; RTA_OK(a, length); a = RTA_NEXT(a, length)) visit(a);
}

void addLink(const nlmsghdr* message, void* context) {
    auto& collected = *static_cast<Collected*>(context);
    KernelLink link;
    if (nv_linux_parse_link(message, &link.facts)) collected.result.links.push_back(link);
}

// Statistics go straight into the link they belong to.
void addStats(const nlmsghdr* message, void* context) {
    const std::size_t header = NLMSG_ALIGN(sizeof(if_stats_msg));
    if (message->nlmsg_len < NLMSG_LENGTH(header)) return;
    auto& collected = *static_cast<Collected*>(context);
    const auto* info = static_cast<const if_stats_msg*>(NLMSG_DATA(message));
    auto found = collected.byIndex.find(static_cast<int>(info->ifindex));
    if (found == collected.byIndex.end()) {
        collected.unmatched = true;
        return;
    }
    collected.statsOrder.push_back(found->second);
    nv_linux_link_t& link = collected.result.links[found->second].facts;
    const auto* first = reinterpret_cast<const rtattr*>(reinterpret_cast<const std::uint8_t*>(info) + header);
    forEachAttribute(first, static_cast<int>(message->nlmsg_len - NLMSG_LENGTH(header)), [&](const rtattr* a) {
        if (a->rta_type != IFLA_STATS_LINK_64 || RTA_PAYLOAD(a) < NV_LINUX_STATS64_MIN) return;
        nv_linux_ifdata(RTA_DATA(a), RTA_PAYLOAD(a), link.mtu, link.type, &link.data);
        link.has_data = 1;
    });
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

void indexLinks(Collected& collected) {
    collected.byIndex.reserve(collected.result.links.size());
    for (std::size_t i = 0; i < collected.result.links.size(); ++i) {
        collected.byIndex.emplace(collected.result.links[i].facts.index, i);
    }
    collected.statsOrder.reserve(collected.result.links.size());
}

// The links in statistics order, when the IPv6 dump had every one of them.
bool inStatisticsOrder(Collected& collected) {
    if (collected.unmatched) return false;
    std::vector<KernelLink> ordered;
    ordered.reserve(std::max(collected.statsOrder.size(), kExpectedLinks));
    for (std::size_t place : collected.statsOrder) ordered.push_back(collected.result.links[place]);
    collected.result.links = std::move(ordered);
    return true;
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
        const nv_linux_link_t& facts = link.facts;
        if (facts.type == ARPHRD_LOOPBACK) continue;
        link.hardware = collected.parentsNamed ? facts.names_parent != 0
                                               : listed.contains(facts.name) && !virtualOnes.contains(facts.name);
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
        bool compact = dump(fd.get(), RTM_GETLINK, RTM_NEWLINK, links, addLink, collected, changed);
        if (compact) indexLinks(collected);
        compact = compact && dump(fd.get(), RTM_GETSTATS, RTM_NEWSTATS, stats, addStats, collected, changed) &&
                  inStatisticsOrder(collected);
        if (!compact) {
            collected = Collected{};
            links.ifi_family = AF_UNSPEC;
            if (!dump(fd.get(), RTM_GETLINK, RTM_NEWLINK, links, addLink, collected, changed)) return std::nullopt;
            collected.parentsNamed = nv_linux_kernel_names_parents() != 0;
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
