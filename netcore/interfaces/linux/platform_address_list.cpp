// Linux socket addresses carry no length byte, and the kernel's interface
// flags use other bits than the shared names for some flags.
//
// The address list is read straight from rtnetlink: one link dump and one
// address dump, as the C library's list is made, except that the same two
// passes also carry the 64-bit counters, the IPv6 settings and the 32-bit
// address flags that the shim would otherwise fetch with one request (and
// one socket) per interface and per address. The entries keep the C
// library's order: every link, then every address in dump order. Where
// netlink fails, the C library's list stands in, without facts.
#include "netcore/interfaces/platform_address_list.h"

// The C library's address headers first: the kernel's IPv6 header then
// leaves their definitions alone.
#include <ifaddrs.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <linux/ethtool.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/if_packet.h>
#include <linux/ipv6.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <functional>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "netcore/shim/linux/nv_linux.h"
#include "support/unique_fd.h"

namespace netvane {

std::size_t netmaskLength(const sockaddr* /*netmask*/, int family) {
    return family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

std::uint32_t interfaceFlagsFromEntry(unsigned int entryFlags) { return nv_linux_interface_flags(entryFlags); }

namespace {

// The link-layer address accessors read up to this many bytes behind
// sll_addr's declared eight, as in the C library's entries.
constexpr std::size_t kLinkAddressMax = 24;
constexpr int kDumpAttempts = 3;

struct LinkLevelAddress {
    sockaddr_ll ll;
    std::uint8_t more[kLinkAddressMax - sizeof(sockaddr_ll::sll_addr)];
};

union SocketAddress {
    sockaddr any;
    sockaddr_in v4;
    sockaddr_in6 v6;
    LinkLevelAddress link;
};

// One entry with its storage; the entry comes first so that an entry handed
// out can be traced back to its node.
struct Node {
    ifaddrs entry;
    SocketAddress address;
    SocketAddress netmask;
    SocketAddress other;
    char name[IF_NAMESIZE];
    std::uint32_t in6Flags;
    bool hasIn6Flags;
};
static_assert(std::is_standard_layout_v<Node>);

// What one link message says, as fixed-size fields: a reading of a few
// hundred interfaces should not cost an allocation per attribute.
struct Link {
    int index = 0;
    unsigned flags = 0;
    unsigned short type = 0;
    char name[IF_NAMESIZE] = {};
    std::uint8_t address[kLinkAddressMax] = {};
    std::size_t addressLength = 0;  // beyond kLinkAddressMax: none kept
    std::uint32_t mtu = 0;
    std::optional<nv_ifdata_t> data;
    // accept_ra, disable_ipv6, accept_dad, when the link has IPv6 settings.
    std::optional<std::array<std::int32_t, 3>> inet6;
    bool hasParent = false;
};

// One IPv4 or IPv6 address: local, peer (where it differs from local) and
// broadcast, each present when its length is non-zero.
struct Address {
    unsigned char family = 0;
    unsigned char prefixLength = 0;
    int index = 0;
    std::uint32_t flags = 0;
    std::uint8_t local[16] = {};
    std::uint8_t peer[16] = {};
    std::uint8_t broadcast[16] = {};
    bool hasPeer = false;
    bool hasBroadcast = false;
    char label[IF_NAMESIZE] = {};
};

struct Dump {
    std::vector<Link> links;
    std::vector<Address> addresses;
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

// Visits the attributes nested in one attribute (or in a message's payload).
template <typename Visit>
void forEachAttribute(const rtattr* first, int length, Visit visit) {
    for (const rtattr* a = first; RTA_OK(a, length); a = RTA_NEXT(a, length)) visit(a);
}

template <typename Visit>
void forEachNested(const rtattr* parent, Visit visit) {
    forEachAttribute(static_cast<const rtattr*>(RTA_DATA(parent)), static_cast<int>(RTA_PAYLOAD(parent)), visit);
}

void readInet6Settings(const rtattr* settings, Link& link) {
    const std::size_t count = RTA_PAYLOAD(settings) / sizeof(std::int32_t);
    if (count <= DEVCONF_ACCEPT_RA || count <= DEVCONF_DISABLE_IPV6 || count <= DEVCONF_ACCEPT_DAD) return;
    const auto value = [&](std::size_t i) {
        std::int32_t v = 0;
        std::memcpy(&v, static_cast<const std::uint8_t*>(RTA_DATA(settings)) + i * sizeof v, sizeof v);
        return v;
    };
    link.inet6 = {value(DEVCONF_ACCEPT_RA), value(DEVCONF_DISABLE_IPV6), value(DEVCONF_ACCEPT_DAD)};
}

void addLink(const nlmsghdr* message, void* context) {
    if (message->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) return;
    const auto* info = static_cast<const ifinfomsg*>(NLMSG_DATA(message));
    Link link;
    link.index = info->ifi_index;
    link.flags = info->ifi_flags;
    link.type = info->ifi_type;
    bool named = false;
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
        case IFLA_PARENT_DEV_NAME: link.hasParent = true; break;
        case IFLA_AF_SPEC:
            forEachNested(a, [&](const rtattr* family) {
                if (family->rta_type != AF_INET6) return;
                forEachNested(family, [&](const rtattr* setting) {
                    if (setting->rta_type == IFLA_INET6_CONF) readInet6Settings(setting, link);
                });
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
    static_cast<Dump*>(context)->links.push_back(link);
}

void addAddress(const nlmsghdr* message, void* context) {
    if (message->nlmsg_len < NLMSG_LENGTH(sizeof(ifaddrmsg))) return;
    const auto* info = static_cast<const ifaddrmsg*>(NLMSG_DATA(message));
    if (info->ifa_family != AF_INET && info->ifa_family != AF_INET6) return;
    const std::size_t size = info->ifa_family == AF_INET ? 4 : 16;
    Address address;
    address.family = info->ifa_family;
    address.prefixLength = info->ifa_prefixlen;
    address.index = static_cast<int>(info->ifa_index);
    address.flags = info->ifa_flags;
    const rtattr* destination = nullptr;
    const rtattr* local = nullptr;
    forEachAttribute(IFA_RTA(info), static_cast<int>(IFA_PAYLOAD(message)), [&](const rtattr* a) {
        const bool sized = RTA_PAYLOAD(a) == size;
        switch (a->rta_type) {
        case IFA_ADDRESS: if (sized) destination = a; break;
        case IFA_LOCAL: if (sized) local = a; break;
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
    static_cast<Dump*>(context)->addresses.push_back(address);
}

// Both dumps, consistent with each other; false when netlink fails.
bool dumpAll(Dump& dump) {
    UniqueFd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!fd) return false;
    for (int attempt = 1;; ++attempt) {
        dump = {};
        struct {
            nlmsghdr header;
            ifinfomsg info;
        } links{};
        links.header.nlmsg_len = sizeof links;
        links.header.nlmsg_type = RTM_GETLINK;
        links.header.nlmsg_seq = 1;
        struct {
            nlmsghdr header;
            ifaddrmsg info;
        } addresses{};
        addresses.header.nlmsg_len = sizeof addresses;
        addresses.header.nlmsg_type = RTM_GETADDR;
        addresses.header.nlmsg_seq = 2;
        int linksChanged = 0, addressesChanged = 0;
        if (!nv_linux_netlink_dump(fd.get(), &links.header, RTM_NEWLINK, addLink, &dump, &linksChanged) ||
            !nv_linux_netlink_dump(fd.get(), &addresses.header, RTM_NEWADDR, addAddress, &dump, &addressesChanged)) {
            return false;
        }
        // A dump that ran into a change may have skipped or repeated an
        // interface; a fresh one is cheap.
        if ((!linksChanged && !addressesChanged) || attempt == kDumpAttempts) return true;
    }
}

// Kernels from 5.19 on name a link's parent device in the link dump; older
// ones are asked through sysfs.
bool kernelNamesParents() {
    utsname system{};
    int major = 0, minor = 0;
    if (::uname(&system) != 0 || std::sscanf(system.release, "%d.%d", &major, &minor) != 2) return false;
    return major > 5 || (major == 5 && minor >= 19);
}

// The per-interface requests that remain: media and capabilities. The mask
// size and the feature table are the kernel's, learnt once per reading.
class EthtoolReader {
public:
    explicit EthtoolReader(int sock) : sock_(sock) {}

    void read(const char* name, KernelFacts& facts) {
        ethtool_link_settings settings{};
        if (nv_linux_link_settings(sock_, name, &words_, &settings)) {
            if (facts.data) facts.data->baudrate = nv_linux_baudrate(&settings);
            nv_media_t media{};
            if (nv_linux_media(sock_, name, &settings, &media)) facts.media = media;
        }
        std::uint32_t capabilities = 0;
        if (!haveTable_) haveTable_ = nv_linux_feature_table(sock_, name, &table_) != 0;
        if ((haveTable_ && nv_linux_curcap(sock_, name, &table_, &capabilities)) ||
            nv_get_curcap(sock_, name, &capabilities)) {
            facts.capabilities = capabilities;
        }
    }

private:
    int sock_;
    int words_ = 0;
    bool haveTable_ = false;
    nv_linux_features_t table_{};
};

KernelFacts factsOf(const Link& link, EthtoolReader& ethtool, bool parentsNamed) {
    KernelFacts facts;
    facts.data = link.data;
    ethtool.read(link.name, facts);
    if (link.inet6) {
        const auto& [acceptRA, disabled, acceptDAD] = *link.inet6;
        facts.nd6Flags = nv_linux_nd6_flags(acceptRA, disabled, acceptDAD, (link.flags & IFF_NOARP) != 0);
    }
    const bool hardware =
        link.type != ARPHRD_LOOPBACK && (parentsNamed ? link.hasParent : nv_linux_has_device(link.name) != 0);
    facts.functionalType = nv_linux_read_functional_type(link.name, link.type, hardware);
    return facts;
}

void setAddress(SocketAddress& into, int family, const std::uint8_t* bytes, int index) {
    if (family == AF_INET) {
        into.v4.sin_family = AF_INET;
        std::memcpy(&into.v4.sin_addr, bytes, 4);
    } else {
        into.v6.sin6_family = AF_INET6;
        std::memcpy(&into.v6.sin6_addr, bytes, 16);
        if (IN6_IS_ADDR_LINKLOCAL(&into.v6.sin6_addr) || IN6_IS_ADDR_MC_LINKLOCAL(&into.v6.sin6_addr)) {
            into.v6.sin6_scope_id = static_cast<std::uint32_t>(index);
        }
    }
}

void setNetmask(SocketAddress& into, int family, unsigned prefixLength) {
    std::uint8_t bytes[16] = {};
    const unsigned bits = std::min(prefixLength, family == AF_INET ? 32u : 128u);
    for (unsigned i = 0; i < bits; ++i) bytes[i / 8] |= static_cast<std::uint8_t>(0x80u >> (i % 8));
    setAddress(into, family, bytes, 0);
}

}  // namespace

struct AddressList::State {
    std::vector<Node> nodes;
    std::unordered_map<std::string_view, KernelFacts> facts;
    ifaddrs* system = nullptr;  // the C library's list, when netlink failed

    ~State() {
        if (system != nullptr) ::freeifaddrs(system);
    }

    void build(const Dump& dump) {
        std::unordered_map<int, const Link*> byIndex(dump.links.size());
        for (const Link& link : dump.links) byIndex.emplace(link.index, &link);
        nodes.assign(dump.links.size() + dump.addresses.size(), Node{});
        std::size_t used = 0;

        for (const Link& link : dump.links) {
            Node& node = nodes[used++];
            std::memcpy(node.name, link.name, sizeof node.name);
            node.entry.ifa_flags = link.flags;
            sockaddr_ll& ll = node.address.link.ll;
            ll.sll_family = AF_PACKET;
            ll.sll_ifindex = link.index;
            ll.sll_hatype = link.type;
            if (link.addressLength <= kLinkAddressMax) {
                ll.sll_halen = static_cast<unsigned char>(link.addressLength);
                std::memcpy(ll.sll_addr, link.address, link.addressLength);
            }
            node.entry.ifa_addr = &node.address.any;
        }
        for (const Address& address : dump.addresses) {
            auto link = byIndex.find(address.index);
            if (link == byIndex.end()) continue;  // appeared after the link dump
            Node& node = nodes[used++];
            std::memcpy(node.name, address.label[0] != '\0' ? address.label : link->second->name, sizeof node.name);
            node.entry.ifa_flags = link->second->flags;
            setAddress(node.address, address.family, address.local, address.index);
            node.entry.ifa_addr = &node.address.any;
            setNetmask(node.netmask, address.family, address.prefixLength);
            node.entry.ifa_netmask = &node.netmask.any;
            if (address.hasPeer || address.hasBroadcast) {
                setAddress(node.other, address.family, address.hasPeer ? address.peer : address.broadcast,
                           address.index);
                node.entry.ifa_dstaddr = &node.other.any;
            }
            if (address.family == AF_INET6) {
                node.in6Flags = nv_linux_in6_flags(address.flags);
                node.hasIn6Flags = true;
            }
        }
        nodes.resize(used);
        for (std::size_t i = 0; i < nodes.size(); ++i) {
            nodes[i].entry.ifa_name = nodes[i].name;
            nodes[i].entry.ifa_next = i + 1 < nodes.size() ? &nodes[i + 1].entry : nullptr;
        }

        UniqueFd sock(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        EthtoolReader ethtool(sock.get());
        const bool parentsNamed = kernelNamesParents();
        for (std::size_t i = 0; i < dump.links.size(); ++i) {
            facts.emplace(nodes[i].name, factsOf(dump.links[i], ethtool, parentsNamed));
        }
    }
};

AddressList::AddressList() = default;
AddressList::AddressList(std::unique_ptr<State> state) : state_(std::move(state)) {}
AddressList::AddressList(AddressList&&) noexcept = default;
AddressList& AddressList::operator=(AddressList&&) noexcept = default;
AddressList::~AddressList() = default;

AddressList AddressList::read() {
    auto state = std::make_unique<State>();
    Dump dump;
    if (dumpAll(dump)) {
        state->build(dump);
    } else if (::getifaddrs(&state->system) != 0) {
        state->system = nullptr;
    }
    return AddressList(std::move(state));
}

const ifaddrs* AddressList::entries() const {
    if (!state_) return nullptr;
    if (state_->system != nullptr) return state_->system;
    return state_->nodes.empty() ? nullptr : &state_->nodes.front().entry;
}

const KernelFacts* AddressList::facts(std::string_view name) const {
    if (!state_) return nullptr;
    auto it = state_->facts.find(name);
    return it == state_->facts.end() ? nullptr : &it->second;
}

std::optional<std::uint32_t> AddressList::in6Flags(const ifaddrs& entry) const {
    if (!state_ || state_->nodes.empty()) return std::nullopt;
    const ifaddrs* first = &state_->nodes.front().entry;
    const ifaddrs* last = &state_->nodes.back().entry;
    std::less<const ifaddrs*> before;
    if (before(&entry, first) || before(last, &entry)) return std::nullopt;
    const Node& node = reinterpret_cast<const Node&>(entry);
    if (!node.hasIn6Flags) return std::nullopt;
    return node.in6Flags;
}

}  // namespace netvane
