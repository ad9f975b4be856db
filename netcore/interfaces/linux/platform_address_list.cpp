// Linux socket addresses carry no length byte, and the kernel's interface
// flags use other bits than the shared names for some flags.
//
// The address list is made from rtnetlink dumps (kernel_links.h), as the C
// library makes its own, except that the same dumps also carry the 64-bit
// counters, the IPv6 settings and the 32-bit address flags that the shim
// would otherwise fetch with one request (and one socket) per interface and
// per address. The entries keep the C library's order: every link, then
// every address in dump order. Where netlink fails, the C library's list
// stands in, without facts.
#include "netcore/interfaces/platform_address_list.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <linux/ethtool.h>
#include <linux/if_packet.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <optional>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "netcore/interfaces/linux/kernel_links.h"
#include "netcore/shim/linux/nv_linux.h"
#include "support/memory.h"
#include "support/unique_fd.h"

namespace netvane {

std::size_t netmaskLength(const sockaddr* /*netmask*/, int family) {
    return family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

std::uint32_t interfaceFlagsFromEntry(unsigned int entryFlags) { return nv_linux_interface_flags(entryFlags); }

// An IPv4 address may carry a label, which the C library (and our list, in
// its order) gives as the entry's name: "eth0:1" for an alias of eth0. An
// interface name never holds a colon, so what precedes it is the interface.
std::string_view interfaceNameOf(std::string_view entryName) { return entryName.substr(0, entryName.find(':')); }

namespace {

struct LinkLevelAddress {
    sockaddr_ll ll;
    std::uint8_t more[NV_LINUX_LINK_ADDRESS_MAX - sizeof(sockaddr_ll::sll_addr)];
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

// The per-interface requests that remain: media (of interfaces a device
// backs) and capabilities. The mask size and the feature table are the
// kernel's, learnt once per reading, and with the table every interface's
// features and timestamping modes come in one dump each; an interface the
// dumps left out asks for itself.
class EthtoolReader {
public:
    explicit EthtoolReader(int sock) : sock_(sock) {}

    void read(const char* name, int index, bool hardware, KernelFacts& facts) {
        ethtool_link_settings settings{};
        if (hardware && nv_linux_link_settings(sock_, name, &words_, &settings)) {
            if (facts.data) facts.data->baudrate = nv_linux_baudrate(&settings);
            nv_media_t media{};
            if (nv_linux_media(sock_, name, &settings, &media)) facts.media = media;
        }
        if (!haveTable_ && (haveTable_ = nv_linux_feature_table(sock_, name, &table_) != 0)) dumpCapabilities();
        std::uint32_t capabilities = 0;
        if (auto dumped = dumped_.find(index); dumped != dumped_.end() && dumped->second.features) {
            const Dumped& d = dumped->second;
            facts.capabilities = *d.features | (d.timestampReplies == 1 ? d.timestamps
                                                                         : nv_linux_timestamp_request(sock_, name));
        } else if ((haveTable_ && nv_linux_curcap(sock_, name, &table_, &capabilities)) ||
                   nv_get_curcap(sock_, name, &capabilities)) {
            facts.capabilities = capabilities;
        }
    }

private:
    int sock_;
    int words_ = 0;
    bool haveTable_ = false;
    nv_linux_features_t table_{};

    struct Dumped {
        std::optional<std::uint32_t> features;
        std::uint32_t timestamps = 0;
        int timestampReplies = 0;  // more than one: not the answer of its own request
    };
    std::unordered_map<std::int32_t, Dumped> dumped_;  // by interface index

    // What a dump answered stands even when a later one failed.
    void dumpCapabilities() {
        nv_linux_dump_capabilities(
            &table_,
            [](std::int32_t index, std::uint32_t capabilities, void* self) {
                static_cast<EthtoolReader*>(self)->dumped_[index].features = capabilities;
            },
            [](std::int32_t index, std::uint32_t capabilities, void* self) {
                Dumped& d = static_cast<EthtoolReader*>(self)->dumped_[index];
                d.timestamps = capabilities;
                ++d.timestampReplies;
            },
            this);
    }
};

KernelFacts factsOf(const KernelLink& link, EthtoolReader& ethtool) {
    const nv_linux_link_t& kernel = link.facts;
    KernelFacts facts;
    if (kernel.has_data) facts.data = kernel.data;
    ethtool.read(kernel.name, kernel.index, link.hardware, facts);
    if (kernel.has_inet6) {
        facts.nd6Flags = nv_linux_nd6_flags(kernel.accept_ra, kernel.disable_ipv6, kernel.accept_dad,
                                            (kernel.flags & IFF_NOARP) != 0);
    }
    facts.functionalType = nv_linux_read_functional_type(NV_LINUX_SYSFS, kernel.name, kernel.type, link.hardware);
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

    void build(const KernelLinks& dump, int sock) {
        std::unordered_map<int, const nv_linux_link_t*> byIndex(dump.links.size());
        for (const KernelLink& link : dump.links) byIndex.emplace(link.facts.index, &link.facts);
        const std::size_t count = dump.links.size() + dump.addresses.size();
        nodes.reserve(count);
        prefaultBuffer(nodes.data(), count * sizeof(Node));
        nodes.assign(count, Node{});
        std::size_t used = 0;

        for (const KernelLink& kernelLink : dump.links) {
            const nv_linux_link_t& link = kernelLink.facts;
            Node& node = nodes[used++];
            std::memcpy(node.name, link.name, sizeof node.name);
            node.entry.ifa_flags = link.flags;
            sockaddr_ll& ll = node.address.link.ll;
            ll.sll_family = AF_PACKET;
            ll.sll_ifindex = link.index;
            ll.sll_hatype = link.type;
            ll.sll_halen = link.address_length;
            std::memcpy(ll.sll_addr, link.address, link.address_length);
            node.entry.ifa_addr = &node.address.any;
        }
        for (const KernelAddress& address : dump.addresses) {
            auto link = byIndex.find(address.index);
            if (link == byIndex.end()) continue;  // appeared after the link dump
            Node& node = nodes[used++];
            std::memcpy(node.name, address.label[0] != '\0' ? address.label : link->second->name, sizeof node.name);
            node.entry.ifa_flags = link->second->flags;
            setAddress(node.address, address.family, address.local, address.index);
            node.entry.ifa_addr = &node.address.any;
            setNetmask(node.netmask, address.family, address.prefix_length);
            node.entry.ifa_netmask = &node.netmask.any;
            if (address.has_peer || address.has_broadcast) {
                setAddress(node.other, address.family, address.has_peer ? address.peer : address.broadcast,
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

        EthtoolReader ethtool(sock);
        for (std::size_t i = 0; i < dump.links.size(); ++i) facts.emplace(nodes[i].name, factsOf(dump.links[i], ethtool));
    }
};

AddressList::AddressList() = default;
AddressList::AddressList(std::unique_ptr<State> state) : state_(std::move(state)) {}
AddressList::AddressList(AddressList&&) noexcept = default;
AddressList& AddressList::operator=(AddressList&&) noexcept = default;
AddressList::~AddressList() = default;

AddressList AddressList::read(int sock) {
    auto state = std::make_unique<State>();
    if (auto dump = readKernelLinks()) {
        state->build(*dump, sock);
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
