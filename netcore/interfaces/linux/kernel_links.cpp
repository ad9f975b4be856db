#include "netcore/interfaces/linux/kernel_links.h"

#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "netcore/shim/linux/nv_linux_netlink.h"
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

void addLink(const nlmsghdr* message, void* context) {
    auto& collected = *static_cast<Collected*>(context);
    KernelLink link;
    if (nv_linux_parse_link(message, &link.facts)) collected.result.links.push_back(link);
}

// Statistics go straight into the link they belong to.
void addStats(const nlmsghdr* message, void* context) {
    auto& collected = *static_cast<Collected*>(context);
    std::int32_t index = 0;
    const nlattr* stats = nullptr;
    if (!nv_linux_parse_stats(message, &index, &stats)) return;
    auto found = collected.byIndex.find(index);
    if (found == collected.byIndex.end()) {
        collected.unmatched = true;
        return;
    }
    collected.statsOrder.push_back(found->second);
    nv_linux_link_t& link = collected.result.links[found->second].facts;
    if (nv_linux_ifdata(stats, link.mtu, link.type, &link.data)) link.has_data = 1;
}

void addAddress(const nlmsghdr* message, void* context) {
    KernelAddress address;
    if (nv_linux_parse_address(message, &address)) {
        static_cast<Collected*>(context)->result.addresses.push_back(address);
    }
}

// One dump; `changed` turns true when the kernel flags it as having run into
// a change (the caller reads all of them again).
template <typename Header>
bool dump(nv_nl_socket_t* socket, std::uint16_t request, std::uint16_t reply, const Header& header,
          nv_nl_visit_t visit, Collected& collected, bool& changed) {
    nv_nl_request_t message;
    std::memcpy(nv_nl_request(&message, request, 0, sizeof header), &header, sizeof header);
    nv_nl_dump_t d{};
    d.type = reply;
    d.visit = visit;
    d.context = &collected;
    d.attempts = 1;
    if (!nv_nl_dump(socket, &message, &d)) return false;
    changed = changed || d.interrupted != 0;
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

// The names sysfs lists among the virtual network devices.
std::unordered_set<std::string> virtualDevices(int sysfs) {
    std::unordered_set<std::string> names;
    const int listing = ::openat(sysfs, "devices/virtual/net", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* dir = listing >= 0 ? ::fdopendir(listing) : nullptr;
    if (dir == nullptr) {
        if (listing >= 0) ::close(listing);
        return names;
    }
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] != '.') names.insert(entry->d_name);
    }
    ::closedir(dir);
    return names;
}

// Which links a device backs. The compact dump names no parent devices, nor
// does the full one before 5.19: then sysfs says. Most links of a busy host
// are virtual and listed together, where no device backs them
// (nv_linux_sysfs_has_device): one read of that listing spares asking for
// each. IMPORTANT: sysfs shows the network namespace it was mounted in, so a
// caller in a namespace of its own needs its own mount.
void markHardware(Collected& collected) {
    const UniqueFd sysfs(collected.parentsNamed ? -1 : ::open("/sys", O_PATH | O_DIRECTORY | O_CLOEXEC));
    const int root = sysfs ? sysfs.get() : NV_LINUX_SYSFS;
    const std::unordered_set<std::string> virtualOnes =
        sysfs ? virtualDevices(root) : std::unordered_set<std::string>{};
    for (KernelLink& link : collected.result.links) {
        if (!collected.parentsNamed && virtualOnes.contains(link.facts.name)) continue;
        link.hardware = nv_linux_link_has_device(&link.facts, collected.parentsNamed, root) != 0;
    }
}

}  // namespace

std::optional<KernelLinks> readKernelLinks() {
    const NetlinkSocket socket(nv_nl_open(NETLINK_ROUTE));
    if (!socket) return std::nullopt;
    for (int attempt = 1;; ++attempt) {
        Collected collected;
        bool changed = false;
        ifinfomsg links{};
        links.ifi_family = AF_INET6;
        if_stats_msg stats{};
        stats.filter_mask = IFLA_STATS_FILTER_BIT(IFLA_STATS_LINK_64);
        bool compact = dump(socket.get(), RTM_GETLINK, RTM_NEWLINK, links, addLink, collected, changed);
        if (compact) indexLinks(collected);
        compact = compact && dump(socket.get(), RTM_GETSTATS, RTM_NEWSTATS, stats, addStats, collected, changed) &&
                  inStatisticsOrder(collected);
        if (!compact) {
            collected = Collected{};
            links.ifi_family = AF_UNSPEC;
            if (!dump(socket.get(), RTM_GETLINK, RTM_NEWLINK, links, addLink, collected, changed)) return std::nullopt;
            collected.parentsNamed = nv_linux_kernel_names_parents() != 0;
        }
        if (!dump(socket.get(), RTM_GETADDR, RTM_NEWADDR, ifaddrmsg{}, addAddress, collected, changed)) {
            return std::nullopt;
        }
        // A dump that ran into a change may have skipped or repeated an
        // interface; the three together are read again, and after the last
        // attempt what was read stands.
        if (!changed || attempt == kDumpAttempts) {
            markHardware(collected);
            return std::move(collected.result);
        }
    }
}

}  // namespace netvane
