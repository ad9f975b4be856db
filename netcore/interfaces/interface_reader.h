// One complete reading of every network interface: the system's address list
// combined with the kernel shim's per-interface requests, or with the same
// facts where the platform's list brings them along (platform_address_list.h).
//
// A reader owns two datagram sockets (IPv4 for the interface requests, IPv6
// for the two IPv6 ones), opened once so that polling stays cheap; either may
// be missing, which only leaves the fields it serves at their defaults. The
// sockets tie a reader's interface requests to the network namespace it was
// created in, so a caller that changes namespace makes a new reader.
// Nothing is reported: a failed request leaves its field at the default, a
// failed address list gives an empty reading. A reader is not synchronised;
// callers sharing one serialise their calls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "netcore/interfaces/interface_snapshot.h"
#include "netcore/interfaces/platform_address_list.h"
#include "support/unique_fd.h"

struct ifaddrs;
struct sockaddr;

namespace netvane {

class InterfaceReader {
public:
    InterfaceReader();

    // One snapshot per interface, in the order interfaces first occur in the
    // system's address list; an address listed under an alias label belongs
    // to the interface the label names (interfaceNameOf). A name that is not
    // UTF-8 comes repaired (repairUtf8: one U+FFFD per ill-formed sequence).
    std::vector<InterfaceSnapshot> snapshot() const;

    // The snapshots of an address list already in hand (the list is not
    // released here).
    std::vector<InterfaceSnapshot> snapshot(const ifaddrs* list) const;

    IPv6Address ipv6Address(const ifaddrs& entry, const std::string& ifname) const;

private:
    std::vector<InterfaceSnapshot> snapshot(const ifaddrs* list, const AddressList* known) const;
    IPv6Address ipv6Address(const ifaddrs& entry, const std::string& ifname, const AddressList* known) const;
    // The per-interface requests, for an interface the list has no facts on.
    KernelFacts askShim(const InterfaceSnapshot& snapshot) const;
    // Fills media, capabilities, ND6 flags, functional type, and the MTU if
    // still unknown.
    void apply(const KernelFacts& facts, InterfaceSnapshot& snapshot) const;

    UniqueFd sock4_;
    UniqueFd sock6_;
};

IPv4Address ipv4Address(const ifaddrs& entry);

// Text of one media word.
std::string mediaWord(int word);
// inet_ntop's text, or "" when the conversion fails.
std::string ntop(int family, const void* address);

// Leading one bits of a netmask socket address of `length` bytes (its length
// byte where addresses carry one); the address sits 4 (IPv4) or 8 (IPv6)
// bytes in. Only the leading run of ones counts; missing bytes are zero.
int prefixLength(const std::uint8_t* socketAddress, std::size_t length, int family);
int prefixLength(const sockaddr* netmask, int family);

}  // namespace netvane
