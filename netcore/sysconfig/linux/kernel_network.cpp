#include "netcore/sysconfig/linux/kernel_network.h"

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <atomic>
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
// One reply to a route request; it carries a handful of attributes.
constexpr std::size_t kRouteReplySize = 4096;

std::uint32_t nextSequence() {
    static std::atomic<std::uint32_t> sequence{1};
    return sequence.fetch_add(1, std::memory_order_relaxed);
}

template <class Header>
const Header* payload(const nlmsghdr* message) {
    if (message->nlmsg_len < NLMSG_LENGTH(sizeof(Header))) return nullptr;
    return static_cast<const Header*>(NLMSG_DATA(message));
}

// Calls visit(type, data, length) for each attribute in [first, first+length).
template <class Visit>
void eachAttribute(const rtattr* first, std::size_t length, Visit visit) {
    unsigned int remaining = static_cast<unsigned int>(length);
    for (const rtattr* a = first; RTA_OK(a, remaining); a = RTA_NEXT(a, remaining)) {
        visit(a->rta_type, RTA_DATA(a), RTA_PAYLOAD(a));
    }
}

std::string addressText(unsigned char family, const void* data, std::size_t length) {
    const std::size_t expected = family == AF_INET ? 4 : 16;
    if ((family != AF_INET && family != AF_INET6) || length < expected) return "";
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
std::optional<std::vector<Record>> dump(int fd, std::uint16_t request, std::uint16_t reply, unsigned char family,
                                        std::size_t headerSize, Parse parse) {
    struct {
        nlmsghdr header;
        unsigned char body[sizeof(ifinfomsg) > sizeof(ifaddrmsg) ? sizeof(ifinfomsg) : sizeof(ifaddrmsg)];
    } message{};
    message.header.nlmsg_len = static_cast<std::uint32_t>(NLMSG_LENGTH(headerSize));
    message.header.nlmsg_type = request;
    message.header.nlmsg_seq = nextSequence();
    message.body[0] = family;  // ifi_family and ifa_family both lead their headers
    struct Context {
        std::vector<Record> records;
        Parse* parse;
    } context{{}, &parse};
    const int done = nv_linux_netlink_dump(
        fd, &message.header, reply,
        [](const nlmsghdr* m, void* raw) {
            auto* c = static_cast<Context*>(raw);
            if (auto record = (*c->parse)(m)) c->records.push_back(std::move(*record));
        },
        &context, nullptr);
    if (!done) return std::nullopt;
    return std::move(context.records);
}

}  // namespace

bool Link::active() const { return (flags & IFF_UP) && (flags & IFF_RUNNING); }

UniqueFd openRoutingSocket() { return UniqueFd(nv_linux_netlink_socket()); }

std::optional<Link> parseLink(const nlmsghdr* message) {
    const auto* info = payload<ifinfomsg>(message);
    if (!info) return std::nullopt;
    Link link;
    link.index = info->ifi_index;
    link.type = info->ifi_type;
    link.flags = info->ifi_flags;
    int lower = 0;
    bool otherNamespace = false;
    eachAttribute(IFLA_RTA(info), message->nlmsg_len - NLMSG_LENGTH(sizeof *info),
                  [&](unsigned short type, const void* data, std::size_t length) {
                      const auto* bytes = static_cast<const std::uint8_t*>(data);
                      switch (type) {
                          case IFLA_IFNAME: link.name.assign(static_cast<const char*>(data), ::strnlen(static_cast<const char*>(data), length)); break;
                          case IFLA_IFALIAS: link.alias.assign(static_cast<const char*>(data), ::strnlen(static_cast<const char*>(data), length)); break;
                          case IFLA_ADDRESS: link.address.assign(bytes, bytes + length); break;
                          case IFLA_LINK:
                              if (length >= sizeof(std::uint32_t)) std::memcpy(&lower, data, sizeof lower);
                              break;
                          case IFLA_LINK_NETNSID: otherNamespace = true; break;
                          case IFLA_LINKINFO:
                              eachAttribute(static_cast<const rtattr*>(data), length,
                                            [&](unsigned short inner, const void* value, std::size_t size) {
                                                if (inner != IFLA_INFO_KIND) return;
                                                const auto* chars = static_cast<const char*>(value);
                                                link.kind.assign(chars, ::strnlen(chars, size));
                                            });
                              break;
                          default: break;
                      }
                  });
    if (link.name.empty()) return std::nullopt;
    if (isLayeredKind(link.kind) && !otherNamespace && lower != link.index) link.lower = lower;
    return link;
}

std::optional<Address> parseAddress(const nlmsghdr* message) {
    const auto* info = payload<ifaddrmsg>(message);
    if (!info) return std::nullopt;
    Address address;
    address.index = static_cast<int>(info->ifa_index);
    address.family = info->ifa_family;
    address.prefixLength = info->ifa_prefixlen;
    std::string local, peer;
    eachAttribute(IFA_RTA(info), message->nlmsg_len - NLMSG_LENGTH(sizeof *info),
                  [&](unsigned short type, const void* data, std::size_t length) {
                      if (type == IFA_LOCAL) local = addressText(info->ifa_family, data, length);
                      if (type == IFA_ADDRESS) peer = addressText(info->ifa_family, data, length);
                  });
    // IFA_LOCAL is this end where the two differ (point-to-point links).
    address.address = local.empty() ? peer : local;
    if (address.address.empty()) return std::nullopt;
    return address;
}

std::optional<std::vector<Link>> dumpLinks(int fd) {
    return dump<Link>(fd, RTM_GETLINK, RTM_NEWLINK, AF_UNSPEC, sizeof(ifinfomsg), parseLink);
}

std::optional<std::vector<Address>> dumpAddresses(int fd, unsigned char family) {
    return dump<Address>(fd, RTM_GETADDR, RTM_NEWADDR, family, sizeof(ifaddrmsg), parseAddress);
}

std::optional<PrimaryRoute> primaryRoute(int fd, unsigned char family) {
    if (fd < 0 || (family != AF_INET && family != AF_INET6)) return std::nullopt;
    struct {
        nlmsghdr header;
        rtmsg route;
        unsigned char attributes[RTA_SPACE(16)];
    } request{};
    std::uint8_t destination[16] = {};
    const std::size_t size = family == AF_INET ? 4 : 16;
    if (::inet_pton(family, family == AF_INET ? kWorldIPv4 : kWorldIPv6, destination) != 1) return std::nullopt;
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(rtmsg));
    request.header.nlmsg_type = RTM_GETROUTE;
    request.header.nlmsg_flags = NLM_F_REQUEST;
    request.header.nlmsg_seq = nextSequence();
    request.route.rtm_family = family;
    request.route.rtm_dst_len = static_cast<unsigned char>(size * 8);
    auto* attribute = reinterpret_cast<rtattr*>(reinterpret_cast<unsigned char*>(&request) +
                                                NLMSG_ALIGN(request.header.nlmsg_len));
    attribute->rta_type = RTA_DST;
    attribute->rta_len = static_cast<unsigned short>(RTA_LENGTH(size));
    std::memcpy(RTA_DATA(attribute), destination, size);
    request.header.nlmsg_len = NLMSG_ALIGN(request.header.nlmsg_len) + RTA_ALIGN(attribute->rta_len);

    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(fd, &request, request.header.nlmsg_len, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) !=
        static_cast<ssize_t>(request.header.nlmsg_len)) {
        return std::nullopt;
    }
    alignas(nlmsghdr) unsigned char buffer[kRouteReplySize];
    for (;;) {
        const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n < static_cast<ssize_t>(sizeof(nlmsghdr))) return std::nullopt;
        const auto* reply = reinterpret_cast<const nlmsghdr*>(buffer);
        if (!NLMSG_OK(reply, static_cast<std::size_t>(n))) return std::nullopt;
        if (reply->nlmsg_seq != request.header.nlmsg_seq) continue;  // a stale answer
        // NLMSG_ERROR: no route (unreachable, prohibited) or a refusal.
        if (reply->nlmsg_type != RTM_NEWROUTE) return std::nullopt;
        const auto* route = payload<rtmsg>(reply);
        if (!route || route->rtm_type != RTN_UNICAST) return std::nullopt;
        int interface = 0;
        PrimaryRoute primary;
        eachAttribute(RTM_RTA(route), reply->nlmsg_len - NLMSG_LENGTH(sizeof *route),
                      [&](unsigned short type, const void* data, std::size_t length) {
                          if (type == RTA_OIF && length >= sizeof interface) std::memcpy(&interface, data, sizeof interface);
                          if (type == RTA_GATEWAY) {
                              const std::string router = addressText(family, data, length);
                              if (!router.empty()) primary.router = router;
                          }
                      });
        char name[IF_NAMESIZE] = {};
        if (interface <= 0 || !::if_indextoname(static_cast<unsigned>(interface), name)) return std::nullopt;
        primary.interfaceName = name;
        return primary;
    }
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
