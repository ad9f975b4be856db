/* Media, capabilities and MTU through the ethtool and interface ioctls. */
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>

#include "netcore/shim/linux/nv_linux.h"
#include "netcore/shim/nv_cleanup.h"
#include "netcore/shim/nv_records.h"
#include "netcore/shim/nv_shim.h"

#define NV_ETHERNET_AUTOSELECT 0x20
#define NV_ETHERNET_NONE 0x22
/* ethtool's mask count is a signed byte. */
#define NV_MAX_MASK_WORDS 127

static int ethtool(int sock, const char* ifname, void* request) {
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    nv_copy_ifname(ifr.ifr_name, ifname);
    ifr.ifr_data = request;
    return ioctl(sock, SIOCETHTOOL, &ifr) == 0;
}

static int link_settings_call(int sock, const char* ifname, struct ethtool_link_settings* request, int words) {
    memset(request, 0, sizeof *request + 3 * (size_t)NV_MAX_MASK_WORDS * sizeof(uint32_t));
    request->cmd = ETHTOOL_GLINKSETTINGS;
    request->link_mode_masks_nwords = (int8_t)words;
    return ethtool(sock, ifname, request);
}

/* Asked with the wrong mask size, the kernel answers with the size it wants
 * (negated) and nothing else; the size is the kernel's, the same for every
 * interface, so a caller reading many interfaces passes it on. */
int nv_linux_link_settings(int sock, const char* ifname, int* words, struct ethtool_link_settings* out) {
    const size_t size = sizeof(struct ethtool_link_settings) + 3 * NV_MAX_MASK_WORDS * sizeof(uint32_t);
    NV_AUTO_FREE struct ethtool_link_settings* request = malloc(size);
    if (!request) return 0;
    int known = words && *words > 0 && *words <= NV_MAX_MASK_WORDS ? *words : 0;
    int ok = link_settings_call(sock, ifname, request, known);
    if (ok && request->link_mode_masks_nwords != known) {
        known = -request->link_mode_masks_nwords;
        ok = known > 0 && known <= NV_MAX_MASK_WORDS && link_settings_call(sock, ifname, request, known) &&
             request->link_mode_masks_nwords == known;
    }
    if (ok) {
        *out = *request;
        if (words) *words = known;
    }
    return ok;
}

uint64_t nv_linux_baudrate(const struct ethtool_link_settings* settings) {
    if (settings->speed == 0 || settings->speed == (uint32_t)SPEED_UNKNOWN) return 0;
    return (uint64_t)settings->speed * 1000000u;
}

int nv_linux_media(int sock, const char* ifname, const struct ethtool_link_settings* settings, nv_media_t* out) {
    struct ethtool_value link = {.cmd = ETHTOOL_GLINK, .data = 0};
    int link_known = ethtool(sock, ifname, &link);
    struct ethtool_pauseparam pause;
    memset(&pause, 0, sizeof pause);
    pause.cmd = ETHTOOL_GPAUSEPARAM;
    int flow_control = ethtool(sock, ifname, &pause) && (pause.rx_pause || pause.tx_pause);

    int active = nv_linux_media_word(settings->speed, settings->port, settings->duplex, flow_control);
    /* A link known to be down has no speed; it still has a medium: none. */
    if (active == 0 && link_known && !link.data) active = NV_ETHERNET_NONE;
    if (active == 0) return 0;
    out->active = active;
    out->current = settings->autoneg == AUTONEG_ENABLE ? NV_ETHERNET_AUTOSELECT : active;
    out->status = link_known ? (NV_MEDIA_STATUS_VALID | (link.data ? NV_MEDIA_STATUS_ACTIVE : 0)) : 0;
    return 1;
}

int nv_get_media(int sock, const char* ifname, nv_media_t* out) {
    if (!ifname || !out) return 0;
    nv_linux_link_t link;
    struct ethtool_link_settings settings;
    return nv_linux_request_link(0, ifname, &link) &&
           nv_linux_link_has_device(&link, nv_linux_kernel_names_parents(), NV_LINUX_SYSFS) &&
           nv_linux_link_settings(sock, ifname, NULL, &settings) && nv_linux_media(sock, ifname, &settings, out);
}

/* The feature names come from a table of the kernel's own, the same for
 * every interface; only the enabled bits are the interface's. */
int nv_linux_feature_table(int sock, const char* ifname, nv_linux_features_t* out) {
    /* One set asked, so one count follows the header. */
    NV_AUTO_FREE struct ethtool_sset_info* sset = calloc(1, sizeof *sset + sizeof(uint32_t));
    if (!sset) return 0;
    sset->cmd = ETHTOOL_GSSET_INFO;
    sset->sset_mask = 1ull << ETH_SS_FEATURES;
    int known = ethtool(sock, ifname, sset) && (sset->sset_mask & (1ull << ETH_SS_FEATURES));
    uint32_t count = known ? sset->data[0] : 0;
    if (count == 0 || count > NV_LINUX_MAX_FEATURES) return 0;

    NV_AUTO_FREE struct ethtool_gstrings* names = calloc(1, sizeof *names + (size_t)count * ETH_GSTRING_LEN);
    if (!names) return 0;
    names->cmd = ETHTOOL_GSTRINGS;
    names->string_set = ETH_SS_FEATURES;
    names->len = count;
    int ok = ethtool(sock, ifname, names) && names->len == count;
    if (ok) {
        out->count = count;
        out->vlan_challenged = -1;
        for (uint32_t i = 0; i < count; ++i) {
            char name[ETH_GSTRING_LEN + 1];
            memcpy(name, names->data + (size_t)i * ETH_GSTRING_LEN, ETH_GSTRING_LEN);
            name[ETH_GSTRING_LEN] = '\0';
            if (strcmp(name, "vlan-challenged") == 0) out->vlan_challenged = (int32_t)i;
            out->capability[i] = nv_linux_feature_capability(name);
        }
    }
    return ok;
}

int nv_linux_curcap(int sock, const char* ifname, const nv_linux_features_t* table, uint32_t* out) {
    if (table->count == 0 || table->count > NV_LINUX_MAX_FEATURES) return 0;
    uint32_t blocks = (table->count + 31) / 32;
    NV_AUTO_FREE struct ethtool_gfeatures* features =
        calloc(1, sizeof *features + blocks * sizeof(struct ethtool_get_features_block));
    if (!features) return 0;
    features->cmd = ETHTOOL_GFEATURES;
    features->size = blocks;
    /* The kernel writes back how many blocks it has: another count than the
     * table's means another table. */
    int ok = ethtool(sock, ifname, features) && features->size == blocks;
    if (ok) {
        uint32_t active[NV_LINUX_MAX_FEATURES / 32];
        for (uint32_t i = 0; i < blocks; ++i) active[i] = features->features[i].active;
        *out = nv_linux_feature_capabilities(table, active, blocks) | nv_linux_timestamp_request(sock, ifname);
    }
    return ok;
}

uint32_t nv_linux_feature_capabilities(const nv_linux_features_t* table, const uint32_t* active, size_t words) {
    uint32_t caps = 1u << 2; /* VLAN_MTU, unless the device is VLAN-challenged */
    for (uint32_t i = 0; i < table->count && i / 32 < words; ++i) {
        if (!((active[i / 32] >> (i % 32)) & 1)) continue;
        if ((int32_t)i == table->vlan_challenged) {
            caps &= ~(1u << 2);
        } else {
            caps |= table->capability[i];
        }
    }
    return caps;
}

uint32_t nv_linux_timestamp_request(int sock, const char* ifname) {
    struct ethtool_ts_info ts;
    memset(&ts, 0, sizeof ts);
    ts.cmd = ETHTOOL_GET_TS_INFO;
    return ethtool(sock, ifname, &ts) ? nv_linux_timestamp_capabilities(ts.so_timestamping) : 0;
}

int nv_get_curcap(int sock, const char* ifname, uint32_t* out) {
    if (!ifname || !out) return 0;
    NV_AUTO_FREE nv_linux_features_t* table = malloc(sizeof *table);
    return table && nv_linux_feature_table(sock, ifname, table) && nv_linux_curcap(sock, ifname, table, out);
}

int nv_get_mtu(int sock, const char* ifname, uint32_t* out) {
    if (!ifname || !out) return 0;
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    nv_copy_ifname(ifr.ifr_name, ifname);
    if (ioctl(sock, SIOCGIFMTU, &ifr) != 0 || ifr.ifr_mtu < 0) return 0;
    *out = (uint32_t)ifr.ifr_mtu;
    return 1;
}
