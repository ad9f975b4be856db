#include "netcore/sysconfig/linux/kernel_network.h"

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "netcore/shim/linux/nv_linux.h"

namespace netvane::kernel {
namespace {

// Addresses reserved for documentation: no network routes them anywhere
// specific, so the kernel's answer for them is its route to the world.
constexpr const char* kWorldIPv4 = "203.0.113.1";
constexpr const char* kWorldIPv6 = "2001:db8::1";

std::string addressText(unsigned char family, const void* data) {
    char text[INET6_ADDRSTRLEN] = {};
    if (!::inet_ntop(family, data, text, sizeof text)) return "";
    return text;
}

bool isLayeredKind(std::string_view kind) {
    for (std::string_view layered : {"vlan", "macvlan", "macvtap", "ipvlan", "ipvtap", "macsec"}) {
        if (kind == layered) return true;
    }
    return false;
}

template <class Record, class Parse>
Result<std::vector<Record>> dump(nv_nl_socket_t* socket, std::uint16_t request, std::uint16_t reply,
                                 unsigned char family, std::size_t headerSize, Parse parse, const char* what) {
    const std::string context = std::string("read the kernel's ") + what;
    if (socket == nullptr) return posixError(EBADF, context);
    nv_nl_request_t message;
    // ifi_family and ifa_family both lead their headers.
    *static_cast<unsigned char*>(nv_nl_request(&message, request, 0, headerSize)) = family;
    struct Records {
        std::vector<Record> records;
        Parse* parse;
    } records{{}, &parse};
    nv_nl_dump_t dump{};
    dump.type = reply;
    dump.visit = [](const nlmsghdr* m, void* raw) {
        auto* r = static_cast<Records*>(raw);
        if (auto record = (*r->parse)(m)) r->records.push_back(std::move(*record));
    };
    dump.restart = [](void* raw) { static_cast<Records*>(raw)->records.clear(); };
    dump.context = &records;
    dump.attempts = kDumpAttempts;
    if (!nv_nl_dump(socket, &message, &dump)) return posixError(dump.error, context);
    if (dump.interrupted) return Error{kPosixErrorDomain, EAGAIN, context + ": they kept changing while being read"};
    return std::move(records.records);
}

}  // namespace

bool Link::active() const { return (flags & IFF_UP) && (flags & IFF_RUNNING); }

NetlinkSocket openRoutingSocket() { return NetlinkSocket(nv_nl_open(NETLINK_ROUTE)); }

std::optional<Link> parseLink(const nlmsghdr* message) {
    nv_linux_link_t facts;
    if (!nv_linux_parse_link(message, &facts)) return std::nullopt;
    Link link;
    link.index = facts.index;
    link.name = facts.name;
    link.type = facts.type;
    link.flags = facts.flags;
    link.kind = facts.kind;
    link.address.assign(facts.address, facts.address + facts.address_length);
    // The description is no fact of the link's; only this view shows it.
    const nlattr* table[IFLA_MAX + 1];
    nv_nl_parse_message(table, IFLA_MAX, message, sizeof(ifinfomsg));
    std::size_t length = 0;
    if (const char* alias = nv_nl_text(table[IFLA_IFALIAS], &length)) link.alias.assign(alias, length);
    if (isLayeredKind(link.kind) && !facts.lower_elsewhere && facts.lower != link.index) link.lower = facts.lower;
    return link;
}

std::optional<Address> parseAddress(const nlmsghdr* message) {
    nv_linux_address_t facts;
    if (!nv_linux_parse_address(message, &facts)) return std::nullopt;
    Address address{facts.index, facts.family, addressText(facts.family, facts.local), facts.prefix_length};
    if (address.address.empty()) return std::nullopt;
    return address;
}

Result<std::vector<Link>> dumpLinks(nv_nl_socket_t* socket) {
    return dump<Link>(socket, RTM_GETLINK, RTM_NEWLINK, AF_UNSPEC, sizeof(ifinfomsg), parseLink, "links");
}

Result<std::vector<Address>> dumpAddresses(nv_nl_socket_t* socket, unsigned char family) {
    return dump<Address>(socket, RTM_GETADDR, RTM_NEWADDR, family, sizeof(ifaddrmsg), parseAddress, "addresses");
}

std::optional<PrimaryRoute> primaryRoute(nv_nl_socket_t* socket, unsigned char family) {
    if (socket == nullptr || (family != AF_INET && family != AF_INET6)) return std::nullopt;
    std::uint8_t destination[16] = {};
    const std::size_t size = family == AF_INET ? 4 : 16;
    if (::inet_pton(family, family == AF_INET ? kWorldIPv4 : kWorldIPv6, destination) != 1) return std::nullopt;
    nv_nl_request_t request;
    auto* route = static_cast<rtmsg*>(nv_nl_request(&request, RTM_GETROUTE, 0, sizeof(rtmsg)));
    route->rtm_family = family;
    route->rtm_dst_len = static_cast<unsigned char>(size * 8);
    nv_nl_put(&request, RTA_DST, destination, size);
    // An error reply means no route (unreachable, prohibited) or a refusal.
    nv_linux_route_t answer;
    const nlmsghdr* reply = nv_nl_exchange(socket, &request, RTM_NEWROUTE);
    if (!reply || !nv_linux_parse_route(reply, &answer) || answer.type != RTN_UNICAST) return std::nullopt;
    char name[IF_NAMESIZE] = {};
    if (answer.interface <= 0 || !::if_indextoname(static_cast<unsigned>(answer.interface), name)) return std::nullopt;
    PrimaryRoute primary;
    primary.interfaceName = name;
    if (answer.has_gateway) {
        if (std::string router = addressText(family, answer.gateway); !router.empty()) primary.router = router;
    }
    return primary;
}

std::string hardwareAddressText(const std::vector<std::uint8_t>& bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (std::uint8_t byte : bytes) {
        if (!text.empty()) text += ':';
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0xf];
    }
    return text;
}

}  // namespace netvane::kernel
