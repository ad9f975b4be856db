/* Every interface's enabled features and timestamping modes in one dump each
 * of the kernel's ethtool netlink family. */
#include <linux/ethtool_netlink.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "netcore/shim/linux/nv_linux.h"

/* A generic netlink message: its header, then the family's, then attributes
 * in the routing attributes' layout. */
#define NV_GENL_ATTRIBUTES(message) \
    ((struct nlattr*)((unsigned char*)NLMSG_DATA(message) + NLMSG_ALIGN(GENL_HDRLEN)))
#define NV_GENL_ATTRIBUTES_LENGTH(message) ((int)(message)->nlmsg_len - (int)NLMSG_LENGTH(GENL_HDRLEN))

static int attribute_ok(const struct nlattr* a, int remaining) {
    return remaining >= (int)sizeof *a && a->nla_len >= sizeof *a && a->nla_len <= remaining;
}

static const struct nlattr* next_attribute(const struct nlattr* a, int* remaining) {
    *remaining -= NLA_ALIGN(a->nla_len);
    return (const struct nlattr*)((const unsigned char*)a + NLA_ALIGN(a->nla_len));
}

static const void* attribute_data(const struct nlattr* a) { return (const unsigned char*)a + NLA_HDRLEN; }
static int attribute_length(const struct nlattr* a) { return (int)a->nla_len - NLA_HDRLEN; }

/* The first attribute of `type` among [first, first + length), or NULL. */
static const struct nlattr* find_attribute(const struct nlattr* first, int length, uint16_t type) {
    for (const struct nlattr* a = first; attribute_ok(a, length); a = next_attribute(a, &length)) {
        if ((a->nla_type & NLA_TYPE_MASK) == type) return a;
    }
    return NULL;
}

static const struct nlattr* find_nested(const struct nlattr* nest, uint16_t type) {
    return find_attribute((const struct nlattr*)attribute_data(nest), attribute_length(nest), type);
}

static int read_u32(const struct nlattr* a, uint32_t* out) {
    if (!a || attribute_length(a) != (int)sizeof *out) return 0;
    memcpy(out, attribute_data(a), sizeof *out);
    return 1;
}

static void start_genl(struct nlmsghdr* message, uint16_t family, uint8_t command, uint16_t flags) {
    message->nlmsg_len = NLMSG_LENGTH(GENL_HDRLEN);
    message->nlmsg_type = family;
    message->nlmsg_flags = flags;
    message->nlmsg_seq = 1;
    struct genlmsghdr* header = NLMSG_DATA(message);
    header->cmd = command;
    header->version = 1;
}

static struct nlattr* put_attribute(struct nlmsghdr* message, uint16_t type, const void* data, size_t length) {
    struct nlattr* a = (struct nlattr*)((unsigned char*)message + NLMSG_ALIGN(message->nlmsg_len));
    a->nla_type = type;
    a->nla_len = (uint16_t)(NLA_HDRLEN + length);
    if (length) memcpy((unsigned char*)a + NLA_HDRLEN, data, length);
    message->nlmsg_len = NLMSG_ALIGN(message->nlmsg_len) + NLA_ALIGN(a->nla_len);
    return a;
}

/* The ethtool family's number on this kernel, or 0. */
static uint16_t ethtool_family(int fd) {
    struct {
        struct nlmsghdr message;
        unsigned char payload[64];
    } request;
    memset(&request, 0, sizeof request);
    start_genl(&request.message, GENL_ID_CTRL, CTRL_CMD_GETFAMILY, NLM_F_REQUEST);
    put_attribute(&request.message, CTRL_ATTR_FAMILY_NAME, ETHTOOL_GENL_NAME, sizeof ETHTOOL_GENL_NAME);
    unsigned char reply[4096];
    const int length = nv_linux_netlink_exchange(fd, &request.message, GENL_ID_CTRL, reply, sizeof reply);
    if (length < (int)NLMSG_LENGTH(GENL_HDRLEN)) return 0;
    const struct nlmsghdr* message = (const struct nlmsghdr*)reply;
    const struct nlattr* id =
        find_attribute(NV_GENL_ATTRIBUTES(message), NV_GENL_ATTRIBUTES_LENGTH(message), CTRL_ATTR_FAMILY_ID);
    uint16_t family = 0;
    if (id && attribute_length(id) == (int)sizeof family) memcpy(&family, attribute_data(id), sizeof family);
    return family;
}

struct dump_visit {
    const nv_linux_features_t* table;
    nv_linux_features_visit_t visit;
    void* context;
};

/* The interface index in a reply's header nest, or 0. */
static uint32_t reply_index(const struct nlmsghdr* message, uint16_t header_type) {
    const struct nlattr* header =
        find_attribute(NV_GENL_ATTRIBUTES(message), NV_GENL_ATTRIBUTES_LENGTH(message), header_type);
    uint32_t index = 0;
    if (!header || !read_u32(find_nested(header, ETHTOOL_A_HEADER_DEV_INDEX), &index) || index > INT32_MAX) return 0;
    return index;
}

/* One interface's reply: its index in the header, its enabled features as a
 * compact bitset (a size and the words of the bits). */
static void visit_features(const struct nlmsghdr* message, void* context) {
    const struct dump_visit* dump = context;
    if (NV_GENL_ATTRIBUTES_LENGTH(message) < 0) return;
    const uint32_t index = reply_index(message, ETHTOOL_A_FEATURES_HEADER);
    const struct nlattr* active =
        find_attribute(NV_GENL_ATTRIBUTES(message), NV_GENL_ATTRIBUTES_LENGTH(message), ETHTOOL_A_FEATURES_ACTIVE);
    uint32_t size = 0;
    if (index == 0 || !active || !read_u32(find_nested(active, ETHTOOL_A_BITSET_SIZE), &size)) return;
    /* Another count than the table's means another table: that interface is
     * left to the per-interface request, which says so. */
    if (size != dump->table->count) return;
    const struct nlattr* value = find_nested(active, ETHTOOL_A_BITSET_VALUE);
    const size_t words = (size + 31) / 32;
    if (!value || attribute_length(value) != (int)(words * sizeof(uint32_t))) return;
    uint32_t bits[NV_LINUX_MAX_FEATURES / 32];
    memcpy(bits, attribute_data(value), words * sizeof(uint32_t));
    dump->visit((int32_t)index, nv_linux_feature_capabilities(dump->table, bits, words), dump->context);
}

/* One dump request of the ethtool family with the compact-bitsets flag in
 * its header nest (`header_type`): bitsets as plain words, not one attribute
 * per named bit. */
static int ethtool_dump(int fd, uint16_t family, uint8_t command, uint16_t header_type, nv_linux_visit_t visit,
                        struct dump_visit* context) {
    struct {
        struct nlmsghdr message;
        unsigned char payload[64];
    } request;
    memset(&request, 0, sizeof request);
    start_genl(&request.message, family, command, NLM_F_REQUEST | NLM_F_DUMP);
    request.message.nlmsg_seq = command;
    struct nlattr* nest = put_attribute(&request.message, header_type | NLA_F_NESTED, NULL, 0);
    const uint32_t flags = ETHTOOL_FLAG_COMPACT_BITSETS;
    put_attribute(&request.message, ETHTOOL_A_HEADER_FLAGS, &flags, sizeof flags);
    nest->nla_len = (uint16_t)((unsigned char*)&request.message + request.message.nlmsg_len - (unsigned char*)nest);
    return nv_linux_netlink_dump(fd, &request.message, family, visit, context, NULL);
}

/* One interface's reply: a device with a clock of its own may have several
 * timestamping providers, one reply each, and is left to its own request. */
static void visit_timestamping(const struct nlmsghdr* message, void* context) {
    const struct dump_visit* dump = context;
    if (NV_GENL_ATTRIBUTES_LENGTH(message) < 0) return;
    const struct nlattr* first = NV_GENL_ATTRIBUTES(message);
    const int length = NV_GENL_ATTRIBUTES_LENGTH(message);
    const uint32_t index = reply_index(message, ETHTOOL_A_TSINFO_HEADER);
    const struct nlattr* modes = find_attribute(first, length, ETHTOOL_A_TSINFO_TIMESTAMPING);
    if (index == 0 || !modes || find_attribute(first, length, ETHTOOL_A_TSINFO_PHC_INDEX)) return;
    uint32_t size = 0, word = 0;
    if (!read_u32(find_nested(modes, ETHTOOL_A_BITSET_SIZE), &size)) return;
    const struct nlattr* value = find_nested(modes, ETHTOOL_A_BITSET_VALUE);
    if (!value || attribute_length(value) != (int)((size + 31) / 32 * sizeof(uint32_t))) return;
    if (size > 0) memcpy(&word, attribute_data(value), sizeof word);
    dump->visit((int32_t)index, nv_linux_timestamp_capabilities(word), dump->context);
}

int nv_linux_dump_capabilities(const nv_linux_features_t* table, nv_linux_features_visit_t features,
                               nv_linux_features_visit_t timestamps, void* context) {
    if (!table || !features || !timestamps || table->count == 0 || table->count > NV_LINUX_MAX_FEATURES) return 0;
    int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC);
    if (fd < 0) return 0;
    int ok = 0;
    const uint16_t family = ethtool_family(fd);
    if (family != 0) {
        struct dump_visit features_visit = {table, features, context};
        struct dump_visit timestamps_visit = {table, timestamps, context};
        ok = ethtool_dump(fd, family, ETHTOOL_MSG_FEATURES_GET, ETHTOOL_A_FEATURES_HEADER, visit_features,
                          &features_visit) &&
             ethtool_dump(fd, family, ETHTOOL_MSG_TSINFO_GET, ETHTOOL_A_TSINFO_HEADER, visit_timestamping,
                          &timestamps_visit);
    }
    close(fd);
    return ok;
}
