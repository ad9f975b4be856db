#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>

#include "netcore/shim/nv_records.h"

namespace {

constexpr std::uint8_t kLinkFamily = 18;

TEST(ShimRequestName, LongNamesAreCutToFifteenCharactersAndTerminated) {
    char field[NV_IFNAME_FIELD];
    std::memset(field, 'x', sizeof field);
    nv_copy_ifname(field, "a-very-long-interface-name");
    EXPECT_EQ(std::string(field), "a-very-long-int");
    EXPECT_EQ(field[15], '\0');

    std::memset(field, 'x', sizeof field);
    nv_copy_ifname(field, "en0");
    EXPECT_EQ(std::string(field), "en0");
    // The rest of the field is zero: the kernel compares the whole field.
    for (std::size_t i = 3; i < sizeof field; ++i) EXPECT_EQ(field[i], '\0') << i;
}

TEST(ShimMediaReply, ReplyWithoutActiveMediumFailsAndLeavesOutputAlone) {
    nv_media_t media{7, 8, 9};
    EXPECT_EQ(nv_media_from_reply(0x20, 0, 3, &media), 0);
    EXPECT_EQ(media.current, 7);
    EXPECT_EQ(media.active, 8);
    EXPECT_EQ(media.status, 9);

    EXPECT_EQ(nv_media_from_reply(0x20, 0x30, 3, &media), 1);
    EXPECT_EQ(media.current, 0x20);
    EXPECT_EQ(media.active, 0x30);
    EXPECT_EQ(media.status, 3);
}

nv_ifmib_record_t recordNamed(const char* name) {
    nv_ifmib_record_t record{};
    std::strncpy(record.name, name, sizeof record.name);
    // Distinct values, so that a field copied into the wrong place shows.
    record.type = 6;
    record.mtu = 1500;
    record.baudrate = 1'000'000'000;
    record.ipackets = 1;
    record.ierrors = 2;
    record.opackets = 3;
    record.oerrors = 4;
    record.collisions = 5;
    record.ibytes = 6;
    record.obytes = 7;
    record.imcasts = 8;
    record.omcasts = 9;
    record.iqdrops = 10;
    return record;
}

TEST(ShimInterfaceMIB, CountersGoToTheirOwnFields) {
    const nv_ifmib_record_t record = recordNamed("en0");
    nv_ifdata_t data{};
    ASSERT_EQ(nv_ifdata_from_mib("en0", &record, &data), 1);
    EXPECT_EQ(data.ibytes, 6u);
    EXPECT_EQ(data.obytes, 7u);
    EXPECT_EQ(data.ipackets, 1u);
    EXPECT_EQ(data.opackets, 3u);
    EXPECT_EQ(data.ierrors, 2u);
    EXPECT_EQ(data.oerrors, 4u);
    EXPECT_EQ(data.imcasts, 8u);
    EXPECT_EQ(data.omcasts, 9u);
    EXPECT_EQ(data.collisions, 5u);
    EXPECT_EQ(data.iqdrops, 10u);
    EXPECT_EQ(data.baudrate, 1'000'000'000u);
    EXPECT_EQ(data.mtu, 1500u);
    EXPECT_EQ(data.type, 6);
}

TEST(ShimInterfaceMIB, RecordOfAnotherInterfaceLendsNothing) {
    nv_ifdata_t data{};
    data.ibytes = 42;
    const nv_ifmib_record_t reused = recordNamed("en10");
    EXPECT_EQ(nv_ifdata_from_mib("en1", &reused, &data), 0);
    EXPECT_EQ(nv_ifdata_from_mib("en100", &reused, &data), 0);
    EXPECT_EQ(data.ibytes, 42u);
    EXPECT_EQ(nv_ifdata_from_mib(nullptr, &reused, &data), 0);
    EXPECT_EQ(nv_ifdata_from_mib("en10", nullptr, &data), 0);
}

TEST(ShimInterfaceMIB, NameFillingTheWholeFieldComparesOverSixteenBytes) {
    // The record's field holds 16 characters without a terminator.
    nv_ifmib_record_t record = recordNamed("");
    std::memcpy(record.name, "0123456789abcdef", 16);
    nv_ifdata_t data{};
    EXPECT_EQ(nv_ifdata_from_mib("0123456789abcdef", &record, &data), 1);
    EXPECT_EQ(nv_ifdata_from_mib("0123456789abcdeX", &record, &data), 0);
}

// A link-level address in the BSD layout: length, family, index, type, name
// length, address length, selector length, then name and address.
std::array<std::uint8_t, 32> linkAddress(const std::string& name, std::initializer_list<std::uint8_t> address,
                                         std::uint16_t index = 4, std::uint8_t type = 6) {
    std::array<std::uint8_t, 32> bytes{};
    bytes[0] = static_cast<std::uint8_t>(NV_LINK_DATA_OFFSET + name.size() + address.size());
    bytes[1] = kLinkFamily;
    std::memcpy(&bytes[2], &index, sizeof index);
    bytes[4] = type;
    bytes[5] = static_cast<std::uint8_t>(name.size());
    bytes[6] = static_cast<std::uint8_t>(address.size());
    std::memcpy(&bytes[NV_LINK_DATA_OFFSET], name.data(), name.size());
    std::size_t at = NV_LINK_DATA_OFFSET + name.size();
    for (std::uint8_t byte : address) bytes[at++] = byte;
    return bytes;
}

TEST(ShimLinkAddress, CopiesTheAddressAfterTheName) {
    const auto sdl = linkAddress("bridge100", {0x02, 0x11, 0x22, 0x33, 0x44, 0x55}, 17, 209);
    std::array<std::uint8_t, 32> out{};
    ASSERT_EQ(nv_link_address_copy(sdl.data(), kLinkFamily, out.data(), out.size()), 6);
    EXPECT_EQ(out[0], 0x02);
    EXPECT_EQ(out[5], 0x55);
    EXPECT_EQ(out[6], 0);
    EXPECT_EQ(nv_link_address_index(sdl.data(), kLinkFamily), 17u);
    EXPECT_EQ(nv_link_address_type(sdl.data(), kLinkFamily), 209);
}

TEST(ShimLinkAddress, RefusesWhatCannotBeCopiedWhole) {
    std::array<std::uint8_t, 8> out{};
    out.fill(0xEE);
    const auto mac = linkAddress("en0", {1, 2, 3, 4, 5, 6});
    EXPECT_EQ(nv_link_address_copy(mac.data(), kLinkFamily, out.data(), 5), 0);
    EXPECT_EQ(out[0], 0xEE);

    const auto none = linkAddress("utun3", {});
    EXPECT_EQ(nv_link_address_copy(none.data(), kLinkFamily, out.data(), out.size()), 0);
    EXPECT_EQ(nv_link_address_index(none.data(), kLinkFamily), 4u);

    EXPECT_EQ(nv_link_address_copy(mac.data(), 2, out.data(), out.size()), 0);
    EXPECT_EQ(nv_link_address_index(mac.data(), 2), 0u);
    EXPECT_EQ(nv_link_address_type(mac.data(), 2), 0);
    EXPECT_EQ(nv_link_address_copy(nullptr, kLinkFamily, out.data(), out.size()), 0);
    EXPECT_EQ(nv_link_address_index(nullptr, kLinkFamily), 0u);

    // Lengths that claim more than the address holds are not followed.
    auto lying = mac;
    lying[0] = NV_LINK_DATA_OFFSET + 3 + 5;
    EXPECT_EQ(nv_link_address_copy(lying.data(), kLinkFamily, out.data(), out.size()), 0);
    EXPECT_EQ(out[0], 0xEE);
}

}  // namespace
