// The Linux shim's translations, and the contract's guarantees that need no
// particular interface (every network namespace has "lo" at index 1).
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <linux/ethtool.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/if_packet.h>
#include <linux/ipv6.h>
#include <linux/net_tstamp.h>
#include <linux/rtnetlink.h>

#include <fcntl.h>
#include <net/if_arp.h>

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "netcore/shim/linux/nv_linux.h"
#include "netcore/shim/nv_shim.h"
#include "support/unique_fd.h"
#include "tests/temporary_directory.h"

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
    EXPECT_EQ(nv_sockaddr_dl_index(link), 7u);
    EXPECT_EQ(nv_sockaddr_dl_type(link), 6);
    address.sll_ifindex = 70000;  // beyond 16 bits
    EXPECT_EQ(nv_sockaddr_dl_index(link), 70000u);

    address.sll_halen = 0;
    EXPECT_EQ(nv_sockaddr_dl_lladdr(link, out, sizeof out), 0);
    address.sll_family = AF_INET;
    EXPECT_EQ(nv_sockaddr_dl_index(link), 0u);
    EXPECT_EQ(nv_sockaddr_dl_type(link), 0);
    EXPECT_EQ(nv_sockaddr_dl_index(nullptr), 0u);
}

// Builds link messages attribute by attribute, as the kernel lays them out.
class LinkMessage {
public:
    LinkMessage() : bytes_(NLMSG_LENGTH(sizeof(ifinfomsg))) {
        ifinfomsg info{};
        info.ifi_index = 70000;
        info.ifi_type = 1;
        info.ifi_flags = IFF_UP;
        std::memcpy(bytes_.data() + NLMSG_HDRLEN, &info, sizeof info);
    }
    LinkMessage& add(unsigned short type, const void* data, std::size_t length) {
        const std::size_t at = NLMSG_ALIGN(bytes_.size());
        bytes_.resize(at + RTA_SPACE(length));
        rtattr attribute{static_cast<unsigned short>(RTA_LENGTH(length)), type};
        std::memcpy(bytes_.data() + at, &attribute, sizeof attribute);
        std::memcpy(bytes_.data() + at + RTA_LENGTH(0), data, length);
        return *this;
    }
    LinkMessage& add(unsigned short type, const std::vector<std::uint8_t>& data) {
        return add(type, data.data(), data.size());
    }
    const nlmsghdr* message() {
        nlmsghdr header{};
        header.nlmsg_len = static_cast<std::uint32_t>(bytes_.size());
        header.nlmsg_type = RTM_NEWLINK;
        std::memcpy(bytes_.data(), &header, sizeof header);
        return reinterpret_cast<const nlmsghdr*>(bytes_.data());
    }
    std::vector<std::uint8_t> attribute(unsigned short type, const void* data, std::size_t length) const {
        LinkMessage inner;
        inner.bytes_.clear();
        inner.add(type, data, length);
        return inner.bytes_;
    }

private:
    std::vector<std::uint8_t> bytes_;
};

TEST(LinuxLinkMessage, OneParserReadsEveryFactOfALink) {
    rtnl_link_stats64 stats{};
    stats.rx_bytes = 1000;
    stats.tx_bytes = 2000;
    stats.multicast = 7;
    const std::uint32_t mtu = 9000;
    const std::uint8_t mac[6] = {2, 0, 0, 0, 0, 9};
    std::vector<std::int32_t> settings(DEVCONF_ACCEPT_DAD + 1, 0);
    settings[DEVCONF_ACCEPT_RA] = 2;
    settings[DEVCONF_DISABLE_IPV6] = 1;
    settings[DEVCONF_ACCEPT_DAD] = 1;
    LinkMessage build;
    const auto conf = build.attribute(IFLA_INET6_CONF, settings.data(), settings.size() * sizeof(std::int32_t));
    const auto inet6 = build.attribute(AF_INET6, conf.data(), conf.size());
    // The statistics come before the MTU, as the kernel sends them.
    build.add(IFLA_IFNAME, "nvx", 4)
        .add(IFLA_ADDRESS, mac, sizeof mac)
        .add(IFLA_STATS64, &stats, sizeof stats)
        .add(IFLA_MTU, &mtu, sizeof mtu)
        .add(IFLA_PARENT_DEV_NAME, "0000:00:03.0", 13)
        .add(IFLA_AF_SPEC, inet6);

    nv_linux_link_t link;
    ASSERT_EQ(nv_linux_parse_link(build.message(), &link), 1);
    EXPECT_EQ(link.index, 70000);
    EXPECT_STREQ(link.name, "nvx");
    ASSERT_EQ(link.address_length, 6);
    EXPECT_EQ(std::memcmp(link.address, mac, 6), 0);
    EXPECT_EQ(link.mtu, 9000u);
    ASSERT_TRUE(link.has_data);
    EXPECT_EQ(link.data.ibytes, 1000u);
    EXPECT_EQ(link.data.obytes, 2000u);
    EXPECT_EQ(link.data.imcasts, 7u);
    EXPECT_EQ(link.data.mtu, 9000u) << "the MTU that followed the statistics";
    EXPECT_EQ(link.data.type, 6);
    EXPECT_EQ(link.data.baudrate, 0u);
    EXPECT_TRUE(link.names_parent);
    ASSERT_TRUE(link.has_inet6);
    EXPECT_EQ(link.accept_ra, 2);
    EXPECT_EQ(link.disable_ipv6, 1);
    EXPECT_EQ(link.accept_dad, 1);
}

TEST(LinuxLinkMessage, WhatDoesNotFitIsLeftOutOrRefused) {
    std::uint8_t longAddress[32] = {};
    std::uint8_t shortStats[NV_LINUX_STATS64_MIN - 8] = {};
    LinkMessage partial;
    partial.add(IFLA_IFNAME, "nvy", 4)
        .add(IFLA_ADDRESS, longAddress, sizeof longAddress)
        .add(IFLA_STATS64, shortStats, sizeof shortStats);
    nv_linux_link_t link;
    ASSERT_EQ(nv_linux_parse_link(partial.message(), &link), 1);
    EXPECT_EQ(link.address_length, 0) << "an address longer than the field is none";
    EXPECT_FALSE(link.has_data) << "statistics too short to hold the counters";
    EXPECT_FALSE(link.has_inet6);
    EXPECT_FALSE(link.names_parent);

    nv_linux_link_t untouched;
    std::memset(&untouched, 0x5A, sizeof untouched);
    LinkMessage tooLong;
    tooLong.add(IFLA_IFNAME, "sixteencharacter", 17);
    EXPECT_EQ(nv_linux_parse_link(tooLong.message(), &untouched), 0);
    LinkMessage unnamed;
    EXPECT_EQ(nv_linux_parse_link(unnamed.message(), &untouched), 0);
    nlmsghdr bare{};
    bare.nlmsg_len = NLMSG_LENGTH(0);
    EXPECT_EQ(nv_linux_parse_link(&bare, &untouched), 0);
    EXPECT_EQ(untouched.index, 0x5A5A5A5A);
}

TEST(LinuxRequests, NamesAreTruncatedNeverOverflowed) {
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

// A sysfs of the test's making, laid out as the kernel lays it out: each
// class/net entry links to the interface's directory under devices/, which
// may hold a link to the device behind it.
class SysfsListing {
public:
    SysfsListing() : root_("netvane-sysfs") {
        std::filesystem::create_directories(root_.path() + "/class/net");
        fd_ = netvane::UniqueFd(::open(root_.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    }
    void add(const std::string& name, const std::string& directory, std::optional<std::string> device = {}) {
        namespace fs = std::filesystem;
        fs::create_directories(root_.path() + "/" + directory);
        fs::create_symlink("../../" + directory, root_.path() + "/class/net/" + name);
        if (device) fs::create_symlink(*device, root_.path() + "/" + directory + "/device");
    }
    void file(const std::string& path, const std::string& content) {
        std::filesystem::create_directories(std::filesystem::path(root_.path() + "/" + path).parent_path());
        std::ofstream(root_.path() + "/" + path) << content;
    }
    int fd() const { return fd_.get(); }

private:
    netvane::testing::TemporaryDirectory root_;
    netvane::UniqueFd fd_;
};

TEST(LinuxHardware, ADeviceBacksOnlyWhatLinksOutsideTheVirtualDevices) {
    SysfsListing sysfs;
    sysfs.add("eth9", "devices/pci0000:00/0000:00:03.0/virtio9/net/eth9", "../../../virtio9");
    sysfs.add("veth9", "devices/virtual/net/veth9");
    sysfs.add("odd9", "devices/virtual/misc/odd/net/odd9", "../../../odd");
    sysfs.add("stray9", "devices/platform/stray/net/stray9", "../../../../virtual/misc/stray");
    sysfs.add("bare9", "devices/platform/bare/net/bare9");
    EXPECT_EQ(nv_linux_sysfs_has_device(sysfs.fd(), "eth9"), 1) << "device link present";
    EXPECT_EQ(nv_linux_sysfs_has_device(sysfs.fd(), "veth9"), 0) << "device link absent, virtual directory";
    EXPECT_EQ(nv_linux_sysfs_has_device(sysfs.fd(), "odd9"), 0) << "device link into devices/virtual";
    EXPECT_EQ(nv_linux_sysfs_has_device(sysfs.fd(), "stray9"), 0) << "only the device link leads into it";
    EXPECT_EQ(nv_linux_sysfs_has_device(sysfs.fd(), "bare9"), 0) << "device link absent";
    EXPECT_EQ(nv_linux_sysfs_has_device(sysfs.fd(), "gone9"), 0) << "not listed at all";
    EXPECT_EQ(nv_linux_sysfs_has_device(sysfs.fd(), "../eth9"), 0);

    // The one decision: sysfs where the kernel names no parents, the message
    // where it does, never loopback.
    nv_linux_link_t link{};
    std::strcpy(link.name, "eth9");
    link.type = ARPHRD_ETHER;
    EXPECT_EQ(nv_linux_link_has_device(&link, 0, sysfs.fd()), 1);
    EXPECT_EQ(nv_linux_link_has_device(&link, 1, sysfs.fd()), 0) << "a message without a parent";
    link.names_parent = 1;
    EXPECT_EQ(nv_linux_link_has_device(&link, 1, sysfs.fd()), 1);
    std::strcpy(link.name, "veth9");
    EXPECT_EQ(nv_linux_link_has_device(&link, 0, sysfs.fd()), 0);
    link.type = ARPHRD_LOOPBACK;
    EXPECT_EQ(nv_linux_link_has_device(&link, 1, sysfs.fd()), 0);
}

TEST(LinuxHardware, FunctionalTypeOfBackedInterfacesComesFromTheirSysfsEntries) {
    SysfsListing sysfs;
    sysfs.add("eth9", "devices/pci0000:00/0000:00:03.0/virtio9/net/eth9", "../../../virtio9");
    sysfs.add("wlan9", "devices/pci0000:00/0000:00:04.0/net/wlan9", "../../../0000:00:04.0");
    sysfs.file("devices/pci0000:00/0000:00:04.0/net/wlan9/phy80211/name", "phy0\n");
    sysfs.add("wwan9", "devices/pci0000:00/0000:00:05.0/net/wwan9", "../../../0000:00:05.0");
    sysfs.file("devices/pci0000:00/0000:00:05.0/net/wwan9/uevent", "INTERFACE=wwan9\nDEVTYPE=wwan\n");
    EXPECT_EQ(nv_linux_read_functional_type(sysfs.fd(), "eth9", ARPHRD_ETHER, 1), 2u);
    EXPECT_EQ(nv_linux_read_functional_type(sysfs.fd(), "wlan9", ARPHRD_ETHER, 1), 3u);
    EXPECT_EQ(nv_linux_sysfs_wireless(sysfs.fd(), "wlan9"), 1);
    EXPECT_EQ(nv_linux_sysfs_wireless(sysfs.fd(), "eth9"), 0);
    EXPECT_EQ(nv_linux_read_functional_type(sysfs.fd(), "wwan9", ARPHRD_ETHER, 1), 5u);
    // Not backed: sysfs is not asked, whatever it would say.
    EXPECT_EQ(nv_linux_read_functional_type(sysfs.fd(), "wlan9", ARPHRD_ETHER, 0), 0u);
}

}  // namespace

