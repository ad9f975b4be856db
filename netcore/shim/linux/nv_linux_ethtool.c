/* Media, capabilities and MTU through the ethtool and interface ioctls. */
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>

#include "netcore/shim/linux/nv_linux.h"
#include "netcore/shim/nv_shim.h"

#define NV_ETHERNET_AUTOSELECT 0x20
#define NV_ETHERNET_NONE 0x22
/* ethtool's mask count is a signed byte. */
#define NV_MAX_MASK_WORDS 127
/* A feature-name table beyond this is not a kernel we understand. */
#define NV_MAX_FEATURES 1024

static int ethtool(int sock, const char* ifname, void* request) {
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    nv_linux_copy_name(ifr.ifr_name, ifname);
    ifr.ifr_data = request;
    return ioctl(sock, SIOCETHTOOL, &ifr) == 0;
}

/* The kernel answers the first call with the mask size it wants (negated). */
int nv_linux_link_settings(int sock, const char* ifname, struct ethtool_link_settings* out) {
    const size_t size = sizeof(struct ethtool_link_settings) + 3 * NV_MAX_MASK_WORDS * sizeof(uint32_t);
    struct ethtool_link_settings* request = calloc(1, size);
    if (!request) return 0;
    request->cmd = ETHTOOL_GLINKSETTINGS;
    int ok = ethtool(sock, ifname, request);
    int words = -request->link_mode_masks_nwords;
    ok = ok && words > 0 && words <= NV_MAX_MASK_WORDS;
    if (ok) {
        memset(request, 0, size);
        request->cmd = ETHTOOL_GLINKSETTINGS;
        request->link_mode_masks_nwords = (int8_t)words;
        ok = ethtool(sock, ifname, request) && request->link_mode_masks_nwords == words;
    }
    if (ok) *out = *request;
    free(request);
    return ok;
}

int nv_get_media(int sock, const char* ifname, nv_media_t* out) {
    if (!ifname || !out) return 0;
    struct ethtool_link_settings settings;
    if (!nv_linux_link_settings(sock, ifname, &settings)) return 0;

    struct ethtool_value link = {.cmd = ETHTOOL_GLINK, .data = 0};
    int link_known = ethtool(sock, ifname, &link);
    struct ethtool_pauseparam pause;
    memset(&pause, 0, sizeof pause);
    pause.cmd = ETHTOOL_GPAUSEPARAM;
    int flow_control = ethtool(sock, ifname, &pause) && (pause.rx_pause || pause.tx_pause);

    int active = nv_linux_media_word(settings.speed, settings.port, settings.duplex, flow_control);
    /* A link known to be down has no speed; it still has a medium: none. */
    if (active == 0 && link_known && !link.data) active = NV_ETHERNET_NONE;
    if (active == 0) return 0;
    out->active = active;
    out->current = settings.autoneg == AUTONEG_ENABLE ? NV_ETHERNET_AUTOSELECT : active;
    out->status = link_known ? (NV_MEDIA_STATUS_VALID | (link.data ? NV_MEDIA_STATUS_ACTIVE : 0)) : 0;
    return 1;
}

/* The feature names and the active feature bits, read in three requests. */
static int enabled_features(int sock, const char* ifname, uint32_t* caps) {
    /* One set asked, so one count follows the header. */
    struct ethtool_sset_info* sset = calloc(1, sizeof *sset + sizeof(uint32_t));
    if (!sset) return 0;
    sset->cmd = ETHTOOL_GSSET_INFO;
    sset->sset_mask = 1ull << ETH_SS_FEATURES;
    int known = ethtool(sock, ifname, sset) && (sset->sset_mask & (1ull << ETH_SS_FEATURES));
    uint32_t count = known ? sset->data[0] : 0;
    free(sset);
    if (count == 0 || count > NV_MAX_FEATURES) return 0;

    uint32_t blocks = (count + 31) / 32;
    struct ethtool_gstrings* names = calloc(1, sizeof *names + (size_t)count * ETH_GSTRING_LEN);
    struct ethtool_gfeatures* features =
        calloc(1, sizeof *features + blocks * sizeof(struct ethtool_get_features_block));
    int ok = names && features;
    if (ok) {
        names->cmd = ETHTOOL_GSTRINGS;
        names->string_set = ETH_SS_FEATURES;
        names->len = count;
        features->cmd = ETHTOOL_GFEATURES;
        features->size = blocks;
        ok = ethtool(sock, ifname, names) && ethtool(sock, ifname, features) && names->len == count;
    }
    if (ok) {
        uint32_t result = 1u << 2; /* VLAN_MTU, unless the device is VLAN-challenged */
        for (uint32_t i = 0; i < count; ++i) {
            char name[ETH_GSTRING_LEN + 1];
            memcpy(name, names->data + (size_t)i * ETH_GSTRING_LEN, ETH_GSTRING_LEN);
            name[ETH_GSTRING_LEN] = '\0';
            int on = (features->features[i / 32].active >> (i % 32)) & 1;
            if (strcmp(name, "vlan-challenged") == 0) {
                if (on) result &= ~(1u << 2);
            } else if (on) {
                result |= nv_linux_feature_capability(name);
            }
        }
        *caps = result;
    }
    free(names);
    free(features);
    return ok;
}

int nv_get_curcap(int sock, const char* ifname, uint32_t* out) {
    if (!ifname || !out) return 0;
    uint32_t caps = 0;
    if (!enabled_features(sock, ifname, &caps)) return 0;
    struct ethtool_ts_info ts;
    memset(&ts, 0, sizeof ts);
    ts.cmd = ETHTOOL_GET_TS_INFO;
    if (ethtool(sock, ifname, &ts)) caps |= nv_linux_timestamp_capabilities(ts.so_timestamping);
    *out = caps;
    return 1;
}

int nv_get_mtu(int sock, const char* ifname, uint32_t* out) {
    if (!ifname || !out) return 0;
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    nv_linux_copy_name(ifr.ifr_name, ifname);
    if (ioctl(sock, SIOCGIFMTU, &ifr) != 0 || ifr.ifr_mtu < 0) return 0;
    *out = (uint32_t)ifr.ifr_mtu;
    return 1;
}
