// Any datagrams the kernel (or someone posing as it) could hand a netlink
// socket: the dump loop, the single-request loop and the event loop read
// them through a stand-in transport, and every message that gets through is
// parsed as each kind of message we read, with every attribute of its table
// read by each getter. Nothing may crash, read past a datagram or loop
// forever; what the loops accept must have passed their checks.
//
// Input: a first byte choosing the loop, then datagrams, each a two-byte
// length (little-endian), a byte naming the sender (0: the kernel) and the
// datagram's bytes. The socket's port is 4242 and its first request's
// sequence number 1.
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <vector>

#include "netcore/shim/linux/nv_linux.h"
#include "netcore/shim/linux/nv_linux_netlink.h"

namespace {

constexpr std::uint32_t kPort = 4242;

struct Datagram {
    std::vector<std::uint8_t> bytes;
    std::uint32_t sender;
};

struct Feed {
    std::deque<Datagram> datagrams;
    std::uint32_t sequence = 0;  // of the last request sent
};

ssize_t sendRequest(void* context, const void* data, std::size_t length) {
    static_cast<Feed*>(context)->sequence = static_cast<const nlmsghdr*>(data)->nlmsg_seq;
    return static_cast<ssize_t>(length);
}

ssize_t receive(void* context, void* buffer, std::size_t size, int, std::uint32_t* sender) {
    auto& feed = *static_cast<Feed*>(context);
    if (feed.datagrams.empty()) {
        errno = EAGAIN;
        return -1;
    }
    const Datagram datagram = std::move(feed.datagrams.front());
    feed.datagrams.pop_front();
    if (!datagram.bytes.empty()) std::memcpy(buffer, datagram.bytes.data(), std::min(size, datagram.bytes.size()));
    *sender = datagram.sender;
    return static_cast<ssize_t>(datagram.bytes.size());
}

void readEveryAttribute(const nlmsghdr* message, std::size_t header) {
    const nlattr* table[IFLA_MAX + 1];
    nv_nl_parse_message(table, IFLA_MAX, message, header);
    for (const nlattr* attribute : table) {
        std::uint64_t wide = 0;
        std::int32_t element = 0;
        char text[16];
        std::size_t length = 0;
        (void)nv_nl_u64(attribute, &wide);
        (void)nv_nl_s32_at(attribute, 3, &element);
        (void)nv_nl_string(attribute, text, sizeof text);
        if (const char* in = nv_nl_text(attribute, &length); in && length > nv_nl_length(attribute)) std::abort();
        const nlattr* nested[IFLA_MAX + 1];
        if (attribute) nv_nl_parse_nested(nested, IFLA_MAX, attribute);
    }
}

void parseAsEverything(const nlmsghdr* message, void*) {
    nv_linux_link_t link;
    if (nv_linux_parse_link(message, &link) && link.name[sizeof link.name - 1] != '\0') std::abort();
    nv_linux_address_t address;
    (void)nv_linux_parse_address(message, &address);
    std::int32_t index = 0;
    const nlattr* stats = nullptr;
    nv_ifdata_t data;
    if (nv_linux_parse_stats(message, &index, &stats)) (void)nv_linux_ifdata(stats, 1500, 1, &data);
    nv_linux_route_t route;
    (void)nv_linux_parse_route(message, &route);
    readEveryAttribute(message, sizeof(ifinfomsg));
    readEveryAttribute(message, 4);  // a generic netlink header
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1) return 0;
    const std::uint8_t mode = data[0] % 3;
    Feed feed;
    for (std::size_t at = 1; at + 3 <= size;) {
        const std::size_t length = data[at] | static_cast<std::size_t>(data[at + 1]) << 8;
        const std::uint32_t sender = data[at + 2];
        at += 3;
        const std::size_t taken = std::min(length, size - at);
        feed.datagrams.push_back({std::vector<std::uint8_t>(data + at, data + at + taken), sender});
        at += taken;
    }
    static const nv_nl_transport_t transport = {sendRequest, receive};
    netvane::NetlinkSocket socket(nv_nl_open_transport(&transport, &feed, kPort));
    if (!socket) std::abort();
    nv_nl_request_t request;
    nv_nl_request(&request, RTM_GETLINK, 0, sizeof(ifinfomsg));
    if (mode == 0) {
        nv_nl_dump_t dump{};
        dump.type = RTM_NEWLINK;
        dump.visit = parseAsEverything;
        dump.attempts = 3;
        (void)nv_nl_dump(socket.get(), &request, &dump);
    } else if (mode == 1) {
        if (const nlmsghdr* reply = nv_nl_exchange(socket.get(), &request, RTM_NEWLINK)) {
            if (reply->nlmsg_seq != feed.sequence || reply->nlmsg_pid != kPort) std::abort();
            parseAsEverything(reply, nullptr);
        }
    } else {
        (void)nv_nl_drain(socket.get(), parseAsEverything, nullptr);
    }
    return 0;
}
