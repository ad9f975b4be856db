// The Linux shim's translations, and the contract's guarantees that need no
// particular interface (every network namespace has "lo" at index 1).
#include <linux/ethtool.h>
#include <linux/if_addr.h>
#include <linux/if_packet.h>
#include <linux/net_tstamp.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "netcore/shim/linux/nv_linux.h"
#include "netcore/shim/nv_shim.h"
#include "support/unique_fd.h"

namespace {

std::string mediaText(int word) {
    char text[128] = {};
    nv_media_word_string(word, text, sizeof text);
    return text;
}

TEST(LinuxMediaWord, SpeedPortAndDuplexRenderThroughTheSharedTables) {
    EXPECT_EQ(mediaText(nv_linux_media_word(10000, PORT_TP, DUPLEX_FULL, 0)), "10Gbase-T <full-duplex>");
    EXPECT_EQ(mediaText(nv_linux_media_word(1000, PORT_TP, DUPLEX_FULL, 1)), "1000baseT <full-duplex,flow-control>");
    EXPECT_EQ(mediaText(nv_linux_media_word(1000, PORT_FIBRE, DUPLEX_FULL, 0)), "1000baseSX <full-duplex>");
    EXPECT_EQ(mediaText(nv_linux_media_word(10, PORT_BNC, DUPLEX_HALF, 0)), "10base2/BNC <half-duplex>");
    EXPECT_EQ(mediaText(nv_linux_media_word(25000, PORT_DA, DUPLEX_FULL, 0)), "25GBase-CR <full-duplex>");
    // Duplex unknown: no option at all, so no brackets.
    EXPECT_EQ(mediaText(nv_linux_media_word(100, PORT_MII, DUPLEX_UNKNOWN, 0)), "100baseTX");
    // A speed the tables do not list is still a known Ethernet medium.
    EXPECT_EQ(mediaText(nv_linux_media_word(800000, PORT_FIBRE, DUPLEX_FULL, 0)), "Other <full-duplex>");
}

TEST(LinuxMediaWord, UnknownSpeedHasNoMedium) {
    EXPECT_EQ(nv_linux_media_word(static_cast<uint32_t>(SPEED_UNKNOWN), PORT_TP, DUPLEX_FULL, 0), 0);
    EXPECT_EQ(nv_linux_media_word(0, PORT_TP, DUPLEX_FULL, 0), 0);
}

TEST(LinuxCapabilities, FeaturesMapOntoCapabilityBits) {
    EXPECT_EQ(nv_linux_feature_capability("rx-checksum"), 1u << 0);
    EXPECT_EQ(nv_linux_feature_capability("tx-checksum-ip-generic"), (1u << 1) | (1u << 13));
    EXPECT_EQ(nv_linux_feature_capability("tx-tcp6-segmentation"), 1u << 6);
    EXPECT_EQ(nv_linux_feature_capability("large-receive-offload"), 1u << 7);
    EXPECT_EQ(nv_linux_feature_capability("rx-gro-list"), 0u);
    EXPECT_EQ(nv_linux_timestamp_capabilities(0), 0u);
    EXPECT_EQ(nv_linux_timestamp_capabilities(SOF_TIMESTAMPING_RX_SOFTWARE), 1u << 12);
    EXPECT_EQ(nv_linux_timestamp_capabilities(SOF_TIMESTAMPING_TX_HARDWARE | SOF_TIMESTAMPING_RX_SOFTWARE),
              (1u << 11) | (1u << 12));
}

TEST(LinuxAddressFlags, ThirtyTwoBitFlagsMapOntoAddressFlagNames) {
    EXPECT_EQ(nv_linux_in6_flags(IFA_F_PERMANENT), 0u);
    EXPECT_EQ(nv_linux_in6_flags(IFA_F_PERMANENT | IFA_F_TENTATIVE | IFA_F_OPTIMISTIC), 0x2u | 0x200u);
    EXPECT_EQ(nv_linux_in6_flags(IFA_F_PERMANENT | IFA_F_DADFAILED | IFA_F_DEPRECATED), 0x4u | 0x10u);
    // Flags past the header's byte: only the 32-bit attribute carries them.
    EXPECT_EQ(nv_linux_in6_flags(IFA_F_PERMANENT | IFA_F_MANAGETEMPADDR | IFA_F_STABLE_PRIVACY), 0x40u | 0x400u);
    // Without a permanent flag the address has a lifetime: dynamic.
    EXPECT_EQ(nv_linux_in6_flags(IFA_F_TEMPORARY), 0x80u | 0x100u);
}

TEST(LinuxInterfaceFlags, LinuxOnlyBitsNeverReadAsOtherNames) {
    EXPECT_EQ(nv_linux_interface_flags(IFF_UP | IFF_BROADCAST | IFF_RUNNING | IFF_MULTICAST), 0x8043u);
    EXPECT_EQ(nv_linux_interface_flags(IFF_LOOPBACK | IFF_NOARP | IFF_PROMISC | IFF_ALLMULTI | IFF_POINTOPOINT),
              0x8u | 0x80u | 0x100u | 0x200u | 0x10u);
    EXPECT_EQ(nv_linux_interface_flags(IFF_NOTRAILERS | IFF_MASTER | IFF_SLAVE | IFF_DYNAMIC | 0x10000u), 0u);
}

TEST(LinuxKernelFacts, TypesAndNeighbourDiscovery) {
    EXPECT_EQ(nv_linux_iftype(1), 6);        // Ethernet
    EXPECT_EQ(nv_linux_iftype(772), 24);     // loopback
    EXPECT_EQ(nv_linux_iftype(0xFFFE), 1);   // tun: other
    EXPECT_EQ(nv_linux_iftype(12345), 1);
    EXPECT_EQ(nv_linux_functional_type(772, "", 0, 0), 1u);
    EXPECT_EQ(nv_linux_functional_type(1, "", 0, 1), 2u);
    EXPECT_EQ(nv_linux_functional_type(1, "wlan", 0, 1), 3u);
    EXPECT_EQ(nv_linux_functional_type(1, "", 1, 1), 3u);
    EXPECT_EQ(nv_linux_functional_type(519, "", 0, 1), 5u);
    EXPECT_EQ(nv_linux_functional_type(1, "bridge", 0, 0), 0u);
    EXPECT_EQ(nv_linux_functional_type(1, "", 0, 0), 0u);  // veth
    EXPECT_EQ(nv_linux_nd6_flags(1, 0, 1, 0), (1u << 0) | (1u << 1) | (1u << 9));
    EXPECT_EQ(nv_linux_nd6_flags(0, 1, 0, 1), 1u << 3);
}

TEST(LinuxLinkAddress, AccessorsOverThePacketAddress) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = 7;
    address.sll_hatype = 1;
    address.sll_halen = 6;
    const uint8_t mac[6] = {0x02, 0x1a, 0xff, 0, 1, 2};
    std::memcpy(address.sll_addr, mac, 6);
    const auto* link = reinterpret_cast<const sockaddr_dl*>(&address);

    uint8_t out[32];
    std::memset(out, 0xAA, sizeof out);
    EXPECT_EQ(nv_sockaddr_dl_lladdr(link, out, 5), 0);
    EXPECT_EQ(out[0], 0xAA);
    ASSERT_EQ(nv_sockaddr_dl_lladdr(link, out, sizeof out), 6);
    EXPECT_EQ(std::memcmp(out, mac, 6), 0);
    EXPECT_EQ(nv_sockaddr_dl_index(link), 7);
    EXPECT_EQ(nv_sockaddr_dl_type(link), 6);

    address.sll_halen = 0;
    EXPECT_EQ(nv_sockaddr_dl_lladdr(link, out, sizeof out), 0);
    address.sll_family = AF_INET;
    EXPECT_EQ(nv_sockaddr_dl_index(link), 0);
    EXPECT_EQ(nv_sockaddr_dl_type(link), 0);
    EXPECT_EQ(nv_sockaddr_dl_index(nullptr), 0);
}

TEST(LinuxRequests, NamesAreTruncatedNeverOverflowed) {
    char field[16];
    std::memset(field, 'x', sizeof field);
    nv_linux_copy_name(field, "averyveryverylonginterfacename");
    EXPECT_EQ(std::string(field), "averyveryverylo");
    netvane::UniqueFd sock(::socket(AF_INET, SOCK_DGRAM, 0));
    uint32_t mtu = 7;
    // Cut to its first 15 bytes, the name names no interface; nothing
    // beyond the request's field is touched.
    EXPECT_EQ(nv_get_mtu(sock.get(), "lo_______________________", &mtu), 0);
    EXPECT_EQ(mtu, 7u);
}

TEST(LinuxRequests, FailuresLeaveOutputsUntouched) {
    netvane::UniqueFd sock4(::socket(AF_INET, SOCK_DGRAM, 0));
    netvane::UniqueFd sock6(::socket(AF_INET6, SOCK_DGRAM, 0));
    nv_ifdata_t data;
    std::memset(&data, 0x5A, sizeof data);
    const unsigned lo = if_nametoindex("lo");
    ASSERT_NE(lo, 0u);
    // The index belongs to lo; asked under another name it must not answer.
    EXPECT_EQ(nv_get_ifdata(lo, "notlo", &data), 0);
    EXPECT_EQ(data.mtu, 0x5A5A5A5Au);
    ASSERT_EQ(nv_get_ifdata(lo, "lo", &data), 1);
    EXPECT_EQ(data.type, 24);

    sockaddr_in6 v4{};
    v4.sin6_family = AF_INET;
    uint32_t flags = 99;
    EXPECT_EQ(nv_get_in6_addr_flags(sock6.get(), "lo", &v4, &flags), 0);
    EXPECT_EQ(nv_get_in6_addr_flags(sock6.get(), "lo", nullptr, &flags), 0);
    EXPECT_EQ(flags, 99u);

    // lo has no link settings, so no medium.
    nv_media_t media = {1, 2, 3};
    EXPECT_EQ(nv_get_media(sock4.get(), "lo", &media), 0);
    EXPECT_EQ(media.current, 1);

    uint32_t value = 42;
    EXPECT_EQ(nv_get_functional_type(sock4.get(), "../lo", &value), 0);
    EXPECT_EQ(nv_get_nd6_flags(sock6.get(), "nonexistent0", &value), 0);
    EXPECT_EQ(value, 42u);
}

TEST(LinuxTunnelOwners, NothingWrittenWithoutRoom) {
    nv_utun_owner_t record = {-5, 77, "keep"};
    EXPECT_EQ(nv_utun_owners(&record, 0), 0);
    EXPECT_EQ(nv_utun_owners(nullptr, 4), 0);
    EXPECT_EQ(record.pid, -5);
    EXPECT_EQ(record.unit, 77u);
}

}  // namespace
