// The configurable interfaces of Linux: every link of the namespace but
// loopback, described from one link dump. A link's kind (or, for plain
// Ethernet devices, whether it is wireless) gives its type; its alias, when
// an administrator set one, is its display name, else the type's name for
// people.
#include <net/if_arp.h>
#include <net/if.h>

#include <map>
#include <string_view>

#include "netcore/shim/linux/nv_linux.h"
#include "netcore/sysconfig/linux/kernel_network.h"
#include "netcore/sysconfig/network_interface_list.h"

namespace netvane {
namespace {

struct Kind {
    const char* interfaceType;
    const char* displayName;
};

std::optional<Kind> kindOf(const kernel::Link& link) {
    static constexpr std::pair<std::string_view, Kind> kKinds[] = {
        {"bridge", {"Bridge", "Bridge"}},  {"bond", {"Bond", "Bond"}}, {"vlan", {"VLAN", "VLAN"}},
        {"wireguard", {"VPN", "VPN"}},
    };
    for (const auto& [name, kind] : kKinds) {
        if (link.kind == name) return kind;
    }
    if (link.type == ARPHRD_PPP) return Kind{"PPP", "PPP"};
    if (link.type != ARPHRD_ETHER) return std::nullopt;
    // Radios are devices of their drivers' own; a link of a kind (veth,
    // macvlan, ...) never is one. Asking sysfs costs two path walks a link,
    // most of a reading on a host with hundreds of virtual links.
    if (link.kind.empty() && nv_linux_sysfs_wireless(NV_LINUX_SYSFS, link.name.c_str())) {
        return Kind{"IEEE80211", "Wi-Fi"};
    }
    return Kind{"Ethernet", "Ethernet"};
}

NetworkInterface describe(const kernel::Link& link) {
    NetworkInterface interface;
    interface.bsdName = link.name;
    const auto kind = kindOf(link);
    if (kind) interface.interfaceType = kind->interfaceType;
    if (!link.alias.empty()) {
        interface.displayName = link.alias;
    } else if (kind) {
        interface.displayName = kind->displayName;
    }
    bool anySet = false;
    for (std::uint8_t byte : link.address) anySet = anySet || byte != 0;
    if (anySet) interface.hardwareAddress = kernel::hardwareAddressText(link.address);
    return interface;
}

class LinuxInterfaceList final : public NetworkInterfaceList {
public:
    std::optional<std::vector<NetworkInterface>> copyAll() override {
        const NetlinkSocket routing = kernel::openRoutingSocket();
        auto links = kernel::dumpLinks(routing.get());
        if (!links) return std::nullopt;
        std::map<int, const kernel::Link*> byIndex;
        for (const kernel::Link& link : *links) byIndex.emplace(link.index, &link);
        std::vector<NetworkInterface> interfaces;
        for (const kernel::Link& link : *links) {
            if (link.type == ARPHRD_LOOPBACK || (link.flags & IFF_LOOPBACK)) continue;
            NetworkInterface interface = describe(link);
            if (const auto lower = byIndex.find(link.lower); link.lower != 0 && lower != byIndex.end()) {
                interface.underlying.push_back(describe(*lower->second));
            }
            interfaces.push_back(std::move(interface));
        }
        return interfaces;
    }
};

}  // namespace

NetworkInterfaceList& systemNetworkInterfaces() {
    static LinuxInterfaceList list;
    return list;
}

}  // namespace netvane
