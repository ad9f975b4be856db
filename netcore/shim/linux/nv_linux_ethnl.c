/* Every interface's enabled features and timestamping modes in one dump each
 * of the kernel's ethtool netlink family. */
#include <linux/ethtool_netlink.h>
#include <linux/genetlink.h>
#include <string.h>

#include "netcore/shim/linux/nv_linux.h"
#include "netcore/shim/linux/nv_linux_netlink.h"

/* The ethtool family's number on this kernel, or 0. */
static uint16_t ethtool_family(nv_nl_socket_t* socket) {
    nv_nl_request_t request;
    struct genlmsghdr* header = nv_nl_request(&request, GENL_ID_CTRL, 0, GENL_HDRLEN);
    header->cmd = CTRL_CMD_GETFAMILY;
    header->version = 1;
    nv_nl_put_string(&request, CTRL_ATTR_FAMILY_NAME, ETHTOOL_GENL_NAME);
    const struct nlmsghdr* reply = nv_nl_exchange(socket, &request, GENL_ID_CTRL);
    const struct nlattr* table[CTRL_ATTR_MAX + 1];
    uint16_t family = 0;
    if (!reply || !nv_nl_parse_message(table, CTRL_ATTR_MAX, reply, GENL_HDRLEN) ||
        !nv_nl_u16(table[CTRL_ATTR_FAMILY_ID], &family)) {
        return 0;
    }
    return family;
}

struct dump_visit {
    const nv_linux_features_t* table;
    nv_linux_features_visit_t visit;
    void* context;
};

/* The interface index in a reply's header nest, or 0. */
static uint32_t reply_index(const struct nlattr* header) {
    const struct nlattr* table[ETHTOOL_A_HEADER_MAX + 1];
    uint32_t index = 0;
    nv_nl_parse_nested(table, ETHTOOL_A_HEADER_MAX, header);
    if (!nv_nl_u32(table[ETHTOOL_A_HEADER_DEV_INDEX], &index) || index > INT32_MAX) return 0;
    return index;
}

/* A compact bitset nest: its bit count and its words, which must be as
 * many as the count needs and at most `capacity`. */
static int read_bitset(const struct nlattr* nest, uint32_t* size, uint32_t* words, size_t capacity) {
    const struct nlattr* table[ETHTOOL_A_BITSET_MAX + 1];
    nv_nl_parse_nested(table, ETHTOOL_A_BITSET_MAX, nest);
    if (!nv_nl_u32(table[ETHTOOL_A_BITSET_SIZE], size)) return 0;
    const size_t count = ((size_t)*size + 31) / 32;
    return count <= capacity && nv_nl_bytes(table[ETHTOOL_A_BITSET_VALUE], words, count * sizeof(uint32_t));
}

/* One interface's reply: its index in the header, its enabled features as a
 * compact bitset (a size and the words of the bits). */
static void visit_features(const struct nlmsghdr* message, void* context) {
    const struct dump_visit* dump = context;
    const struct nlattr* table[ETHTOOL_A_FEATURES_MAX + 1];
    nv_nl_parse_message(table, ETHTOOL_A_FEATURES_MAX, message, GENL_HDRLEN);
    const uint32_t index = reply_index(table[ETHTOOL_A_FEATURES_HEADER]);
    uint32_t size = 0;
    uint32_t bits[NV_LINUX_MAX_FEATURES / 32];
    if (index == 0 || !read_bitset(table[ETHTOOL_A_FEATURES_ACTIVE], &size, bits, NV_LINUX_MAX_FEATURES / 32)) return;
    /* Another count than the table's means another table: that interface is
     * left to the per-interface request, which says so. */
    if (size != dump->table->count) return;
    dump->visit((int32_t)index, nv_linux_feature_capabilities(dump->table, bits, (size + 31) / 32), dump->context);
}

/* One interface's reply: a device with a clock of its own may have several
 * timestamping providers, one reply each, and is left to its own request. */
static void visit_timestamping(const struct nlmsghdr* message, void* context) {
    const struct dump_visit* dump = context;
    const struct nlattr* table[ETHTOOL_A_TSINFO_MAX + 1];
    nv_nl_parse_message(table, ETHTOOL_A_TSINFO_MAX, message, GENL_HDRLEN);
    const uint32_t index = reply_index(table[ETHTOOL_A_TSINFO_HEADER]);
    if (index == 0 || table[ETHTOOL_A_TSINFO_PHC_INDEX]) return;
    /* The modes are the kernel's SOF_TIMESTAMPING_* bits: one word holds
     * the ones we map. */
    uint32_t size = 0, words[NV_LINUX_MAX_FEATURES / 32] = {0};
    if (!read_bitset(table[ETHTOOL_A_TSINFO_TIMESTAMPING], &size, words, NV_LINUX_MAX_FEATURES / 32)) return;
    dump->visit((int32_t)index, nv_linux_timestamp_capabilities(words[0]), dump->context);
}

/* One dump request of the ethtool family with the compact-bitsets flag in
 * its header nest (`header_type`): bitsets as plain words, not one attribute
 * per named bit. */
static int ethtool_dump(nv_nl_socket_t* socket, uint16_t family, uint8_t command, uint16_t header_type,
                        nv_nl_visit_t visit, struct dump_visit* context) {
    nv_nl_request_t request;
    struct genlmsghdr* header = nv_nl_request(&request, family, 0, GENL_HDRLEN);
    header->cmd = command;
    header->version = 1;
    const size_t nest = nv_nl_nest_start(&request, header_type);
    nv_nl_put_u32(&request, ETHTOOL_A_HEADER_FLAGS, ETHTOOL_FLAG_COMPACT_BITSETS);
    nv_nl_nest_end(&request, nest);
    nv_nl_dump_t dump = {.type = family, .visit = visit, .context = context, .attempts = 1};
    return nv_nl_dump(socket, &request, &dump);
}

int nv_linux_dump_capabilities(const nv_linux_features_t* table, nv_linux_features_visit_t features,
                               nv_linux_features_visit_t timestamps, void* context) {
    if (!table || !features || !timestamps || table->count == 0 || table->count > NV_LINUX_MAX_FEATURES) return 0;
    NV_AUTO_NETLINK nv_nl_socket_t* socket = nv_nl_open(NETLINK_GENERIC);
    const uint16_t family = socket ? ethtool_family(socket) : 0;
    if (family == 0) return 0;
    struct dump_visit features_visit = {table, features, context};
    struct dump_visit timestamps_visit = {table, timestamps, context};
    return ethtool_dump(socket, family, ETHTOOL_MSG_FEATURES_GET, ETHTOOL_A_FEATURES_HEADER, visit_features,
                        &features_visit) &&
           ethtool_dump(socket, family, ETHTOOL_MSG_TSINFO_GET, ETHTOOL_A_TSINFO_HEADER, visit_timestamping,
                        &timestamps_visit);
}
