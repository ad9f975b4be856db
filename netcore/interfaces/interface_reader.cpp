#include "netcore/interfaces/interface_reader.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "netcore/interfaces/platform_address_list.h"
#include "netcore/shim/nv_shim.h"
#include "support/descriptors.h"
#include "support/unicode.h"

namespace netvane {
namespace {

constexpr std::size_t kMediaTextSize = 128;
constexpr std::size_t kAddressTextSize = 46;  // INET6_ADDRSTRLEN
constexpr std::size_t kLinkAddressCapacity = 32;

void appendIPv4(const ifaddrs& entry, std::uint32_t flags, IPv4Address& address) {
    if (entry.ifa_dstaddr == nullptr || entry.ifa_dstaddr->sa_family != AF_INET) return;
    std::string other = ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(entry.ifa_dstaddr)->sin_addr);
    if (flags & InterfaceSnapshot::kFlagPointToPoint) {
        address.destination = std::move(other);
    } else if ((flags & IFF_BROADCAST) && other != "0.0.0.0") {
        address.broadcast = std::move(other);
    }
}

const sockaddr_dl* asLinkAddress(const sockaddr* address) {
    // The shim reads the platform's link-level address behind this type and
    // checks the family itself.
    return reinterpret_cast<const sockaddr_dl*>(address);
}

}  // namespace

std::string ntop(int family, const void* address) {
    std::array<char, kAddressTextSize> text{};
    if (inet_ntop(family, address, text.data(), text.size()) == nullptr) return "";
    return decodeCString(text);
}

std::string mediaWord(int word) {
    std::array<char, kMediaTextSize> text{};
    nv_media_word_string(word, text.data(), text.size());
    return decodeCString(text);
}

int prefixLength(const std::uint8_t* socketAddress, std::size_t length, int family) {
    const std::ptrdiff_t offset = family == AF_INET6 ? 8 : 4;
    const std::ptrdiff_t fullSize = family == AF_INET6 ? 16 : 4;
    const std::ptrdiff_t significant = static_cast<std::ptrdiff_t>(length) - offset;
    if (significant < 1) return 0;
    const std::ptrdiff_t available = std::min(significant, fullSize);
    int bits = 0;
    for (std::ptrdiff_t i = 0; i < available; ++i) {
        std::uint8_t byte = socketAddress[offset + i];
        if (byte == 0xFF) {
            bits += 8;
            continue;
        }
        for (std::uint8_t mask = 0x80; mask != 0 && (byte & mask); mask >>= 1) ++bits;
        break;
    }
    return bits;
}

int prefixLength(const sockaddr* netmask, int family) {
    return prefixLength(reinterpret_cast<const std::uint8_t*>(netmask), netmaskLength(netmask, family), family);
}

IPv4Address ipv4Address(const ifaddrs& entry) {
    IPv4Address address;
    if (entry.ifa_addr != nullptr && entry.ifa_addr->sa_family == AF_INET) {
        address.address = ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(entry.ifa_addr)->sin_addr);
    }
    if (entry.ifa_netmask != nullptr) {
        if (entry.ifa_netmask->sa_family == AF_INET) {
            address.netmask = ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(entry.ifa_netmask)->sin_addr);
        }
        address.prefixLength = prefixLength(entry.ifa_netmask, AF_INET);
    }
    appendIPv4(entry, interfaceFlagsFromEntry(entry.ifa_flags), address);
    return address;
}

InterfaceReader::InterfaceReader()
    : sock4_(openSocket(AF_INET, SOCK_DGRAM, 0)), sock6_(openSocket(AF_INET6, SOCK_DGRAM, 0)) {}

IPv6Address InterfaceReader::ipv6Address(const ifaddrs& entry, const std::string& ifname) const {
    return ipv6Address(entry, ifname, nullptr);
}

IPv6Address InterfaceReader::ipv6Address(const ifaddrs& entry, const std::string& ifname,
                                         const AddressList* list) const {
    sockaddr_in6 socketAddress{};
    std::memcpy(&socketAddress, entry.ifa_addr, sizeof socketAddress);
    std::uint8_t* bytes = socketAddress.sin6_addr.s6_addr;

    IPv6Address address;
    const std::uint32_t embedded = static_cast<std::uint32_t>(bytes[2]) << 8 | bytes[3];
    const bool linkLocal = bytes[0] == 0xFE && (bytes[1] & 0xC0) == 0x80;
    std::array<std::uint8_t, 16> shown;
    std::memcpy(shown.data(), bytes, shown.size());
    if (linkLocal && embedded != 0) {
        address.scopeID = socketAddress.sin6_scope_id != 0 ? socketAddress.sin6_scope_id : embedded;
        shown[2] = shown[3] = 0;
    } else {
        address.scopeID = socketAddress.sin6_scope_id;
    }
    std::optional<std::uint32_t> known = list != nullptr ? list->in6Flags(entry) : std::nullopt;
    std::uint32_t flags = 0;
    if (known) {
        address.flags = *known;
    } else if (nv_get_in6_addr_flags(sock6_.get(), ifname.c_str(), &socketAddress, &flags)) {
        address.flags = flags;
    }
    address.address = ntop(AF_INET6, shown.data());
    if (entry.ifa_netmask != nullptr) address.prefixLength = prefixLength(entry.ifa_netmask, AF_INET6);
    return address;
}

KernelFacts InterfaceReader::askShim(const InterfaceSnapshot& snapshot) const {
    const char* name = snapshot.name.c_str();
    KernelFacts facts;
    nv_ifdata_t data{};
    if (snapshot.index != 0 && nv_get_ifdata(snapshot.index, name, &data)) facts.data = data;
    nv_media_t media{};
    if (nv_get_media(sock4_.get(), name, &media)) facts.media = media;
    std::uint32_t value = 0;
    if (nv_get_curcap(sock4_.get(), name, &value)) facts.capabilities = value;
    value = 0;
    if (nv_get_nd6_flags(sock6_.get(), name, &value)) facts.nd6Flags = value;
    value = 0;
    if (nv_get_functional_type(sock4_.get(), name, &value)) facts.functionalType = value;
    return facts;
}

void InterfaceReader::apply(const KernelFacts& facts, InterfaceSnapshot& snapshot) const {
    if (const auto& data = facts.data) {
        snapshot.counters = InterfaceCounters{data->ibytes,     data->obytes,  data->ipackets, data->opackets,
                                              data->ierrors,    data->oerrors, data->imcasts,  data->omcasts,
                                              data->collisions, data->iqdrops};
        snapshot.mtu = data->mtu;
        snapshot.ifType = data->type;
        snapshot.baudrate = data->baudrate;
    }
    if (const auto& word = facts.media) {
        MediaInfo info;
        info.status = nv_media_status_valid(word->status)
                          ? (nv_media_status_active(word->status) ? MediaStatus::active : MediaStatus::inactive)
                          : MediaStatus::unknown;
        info.current = mediaWord(word->current);
        if (word->active != word->current) info.active = mediaWord(word->active);
        snapshot.media = std::move(info);
    }
    snapshot.capabilities = facts.capabilities;
    snapshot.nd6Flags = facts.nd6Flags;
    if (facts.functionalType) {
        snapshot.functionalType = functionalTypeFromRaw(*facts.functionalType).value_or(FunctionalType::unknown);
    }
    std::uint32_t mtu = 0;
    if (snapshot.mtu == 0 && nv_get_mtu(sock4_.get(), snapshot.name.c_str(), &mtu)) snapshot.mtu = mtu;
}

std::vector<InterfaceSnapshot> InterfaceReader::snapshot() const {
    const AddressList list = AddressList::read(sock4_.get());
    return snapshot(list.entries(), &list);
}

std::vector<InterfaceSnapshot> InterfaceReader::snapshot(const ifaddrs* list) const { return snapshot(list, nullptr); }

std::vector<InterfaceSnapshot> InterfaceReader::snapshot(const ifaddrs* list, const AddressList* known) const {
    // Room for as many interfaces as entries: more than needed, but what is
    // not used is not touched, where growing would copy every snapshot.
    std::size_t entries = 0;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) ++entries;
    std::vector<InterfaceSnapshot> snapshots;
    snapshots.reserve(entries);
    std::unordered_map<std::string, std::size_t> byName(entries);
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        // An entry without a name breaks the system's own contract.
        if (entry->ifa_name == nullptr) std::abort();
        std::string name(interfaceNameOf(entry->ifa_name));
        auto [it, fresh] = byName.try_emplace(name, snapshots.size());
        if (fresh) {
            InterfaceSnapshot& created = snapshots.emplace_back();
            created.name = name;
            created.flags = interfaceFlagsFromEntry(entry->ifa_flags);
        }
        InterfaceSnapshot& snapshot = snapshots[it->second];
        if (entry->ifa_addr == nullptr) continue;
        const int family = entry->ifa_addr->sa_family;
        if (family == AF_INET) {
            snapshot.ipv4.push_back(ipv4Address(*entry));
        } else if (family == AF_INET6) {
            snapshot.ipv6.push_back(ipv6Address(*entry, name, known));
        } else if (unsigned index = nv_sockaddr_dl_index(asLinkAddress(entry->ifa_addr)); index != 0) {
            snapshot.index = index;
            std::array<std::uint8_t, kLinkAddressCapacity> bytes{};
            int length = nv_sockaddr_dl_lladdr(asLinkAddress(entry->ifa_addr), bytes.data(), bytes.size());
            if (length > 0) {
                snapshot.linkAddress = LinkAddress{{bytes.begin(), bytes.begin() + length},
                                                   nv_sockaddr_dl_type(asLinkAddress(entry->ifa_addr))};
            }
        }
    }
    for (InterfaceSnapshot& snapshot : snapshots) {
        // The system's index for the name, asked only when no link entry gave
        // one: the link entry's index would replace it anyway, and the
        // question costs a socket of its own per interface.
        if (snapshot.index == 0) snapshot.index = ::if_nametoindex(snapshot.name.c_str());
        const KernelFacts* facts = known != nullptr ? known->facts(snapshot.name) : nullptr;
        apply(facts != nullptr ? *facts : askShim(snapshot), snapshot);
        // The kernel takes nearly any byte in a name; what we show and keep
        // is text. Only now, once it has been asked under the name it knows.
        if (!isValidUtf8(snapshot.name)) snapshot.name = repairUtf8(snapshot.name);
    }
    return snapshots;
}

}  // namespace netvane
