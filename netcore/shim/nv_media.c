/* Media words to text. The tables are the media descriptor lists of the
 * if_media encoding, in its order: the first matching entry wins, so the
 * order is part of the contract. Each list ends with an entry without a name. */
#include "netcore/shim/nv_shim.h"

#include <stdint.h>
#include <string.h>

typedef struct nv_media_name {
    uint32_t value;
    const char* name;
} nv_media_name_t;

typedef struct nv_media_type {
    uint32_t type;
    const nv_media_name_t* subtypes[2]; /* shared, then the type's own */
    const nv_media_name_t* options[2];
} nv_media_type_t;

#define NV_MEDIA_TYPE_MASK 0x000000E0u
#define NV_MEDIA_SUBTYPE_MASK 0x000F001Fu

static const nv_media_name_t shared_subtypes[] = {
    {0, "autoselect"},
    {1, "manual"},
    {2, "none"},
    {0, NULL},
};

static const nv_media_name_t shared_options[] = {
    {0x00100000, "full-duplex"},
    {0x00200000, "half-duplex"},
    {0x00400000, "flow-control"},
    {0x00800000, "energy-efficient-ethernet"},
    {0x01000000, "flag0"},
    {0x02000000, "flag1"},
    {0x04000000, "flag2"},
    {0x08000000, "hw-loopback"},
    {0, NULL},
};

static const nv_media_name_t ethernet_subtypes[] = {
    {0x00003, "10baseT/UTP"},
    {0x00004, "10base2/BNC"},
    {0x00005, "10base5/AUI"},
    {0x00006, "100baseTX"},
    {0x00007, "100baseFX"},
    {0x00008, "100baseT4"},
    {0x00009, "100baseVG"},
    {0x0000A, "100baseT2"},
    {0x0000C, "10baseSTP"},
    {0x0000D, "10baseFL"},
    {0x0000B, "1000baseSX"},
    {0x0000E, "1000baseLX"},
    {0x0000F, "1000baseCX"},
    {0x00010, "1000baseT"},
    {0x00011, "homePNA"},
    {0x00013, "10Gbase-LR"},
    {0x00012, "10Gbase-SR"},
    {0x00014, "10Gbase-CX4"},
    {0x10000, "2500BaseSX"},
    {0x10003, "10Gbase-LRM"},
    {0x10001, "10Gbase-Twinax"},
    {0x10002, "10Gbase-Twinax-Long"},
    {0x00015, "10Gbase-T"},
    {0x10005, "40Gbase-CR4"},
    {0x10006, "40Gbase-SR4"},
    {0x1000C, "40Gbase-LR4"},
    {0x00019, "1000Base-KX"},
    {0x0001F, "Other"},
    {0x0001A, "10GBase-KX4"},
    {0x0001B, "10GBase-KR"},
    {0x0001C, "10GBase-CR1"},
    {0x0001E, "20GBase-KR2"},
    {0x10004, "2500Base-KX"},
    {0x00016, "2500Base-T"},
    {0x00017, "5000Base-T"},
    {0x10007, "PCIExpress-50G"},
    {0x10008, "PCIExpress-25G"},
    {0x10009, "1000Base-SGMII"},
    {0x1000A, "10GBase-SFI"},
    {0x1000B, "40GBase-XLPPI"},
    {0x00018, "1000Base-CX-SGMII"},
    {0x1000D, "40GBase-KR4"},
    {0x0001D, "10GBase-ER"},
    {0x1000F, "100GBase-CR4"},
    {0x10010, "100GBase-SR4"},
    {0x10011, "100GBase-KR4"},
    {0x10012, "100GBase-LR4"},
    {0x10013, "56GBase-R4"},
    {0x10014, "100BaseT"},
    {0x10015, "25GBase-CR"},
    {0x10016, "25GBase-KR"},
    {0x10017, "25GBase-SR"},
    {0x10018, "50GBase-CR2"},
    {0x10019, "50GBase-KR2"},
    {0x1001A, "25GBase-LR"},
    {0x1001B, "10GBase-AOC"},
    {0x1001C, "25GBase-ACC"},
    {0x1001D, "25GBase-AOC"},
    {0x1001E, "100M-SGMII"},
    {0x1001F, "2500Base-X"},
    {0x20000, "5000Base-KR"},
    {0x20001, "25GBase-T"},
    {0x20002, "25GBase-CR-S"},
    {0x20003, "25GBase-CR1"},
    {0x20004, "25GBase-KR-S"},
    {0x20005, "5000Base-KR-S"},
    {0x20006, "5000Base-KR1"},
    {0x20007, "25G-AUI"},
    {0x20008, "40G-XLAUI"},
    {0x20009, "40G-XLAUI-AC"},
    {0x2000A, "40GBase-ER4"},
    {0x2000B, "50GBase-SR2"},
    {0x2000C, "50GBase-LR2"},
    {0x2000D, "50G-LAUI2-AC"},
    {0x2000E, "50G-LAUI2"},
    {0x2000F, "50G-AUI2-AC"},
    {0x20010, "50G-AUI2"},
    {0x20011, "50GBase-CP"},
    {0x20012, "50GBase-SR"},
    {0x20013, "50GBase-LR"},
    {0x20014, "50GBase-FR"},
    {0x20015, "50GBase-KR-PAM4"},
    {0x20016, "25GBase-KR1"},
    {0x20017, "50G-AUI1-AC"},
    {0x20018, "50G-AUI1"},
    {0x20019, "100G-CAUI4-AC"},
    {0x2001A, "100G-CAUI4"},
    {0x2001B, "100G-AUI4-AC"},
    {0x2001C, "100G-AUI4"},
    {0x2001D, "100GBase-CR-PAM4"},
    {0x2001E, "100GBase-KR-PAM4"},
    {0x2001F, "100GBase-CP2"},
    {0x30000, "100GBase-SR2"},
    {0x30001, "100GBase-DR"},
    {0x30002, "100GBase-KR2-PAM4"},
    {0x30003, "100G-CAUI2-AC"},
    {0x30004, "100G-CAUI2"},
    {0x30005, "100G-AUI2-AC"},
    {0x30006, "100G-AUI2"},
    {0x30007, "200GBase-CR4-PAM4"},
    {0x30008, "200GBase-SR4"},
    {0x30009, "200GBase-FR4"},
    {0x3000A, "200GBase-LR4"},
    {0x3000B, "200GBase-DR4"},
    {0x3000C, "200GBase-KR4-PAM4"},
    {0x3000D, "200G-AUI4-AC"},
    {0x3000E, "200G-AUI4"},
    {0x3000F, "200G-AUI8-AC"},
    {0x30010, "200G-AUI8"},
    {0x30011, "400GBase-FR8"},
    {0x30012, "400GBase-LR8"},
    {0x30013, "400GBase-DR4"},
    {0x30014, "400G-AUI8-AC"},
    {0x30015, "400G-AUI8"},
    {0, NULL},
};

static const nv_media_name_t ethernet_options[] = {
    {0, NULL},
};

static const nv_media_name_t tokenring_subtypes[] = {
    {3, "DB9/4Mbit"},
    {4, "DB9/16Mbit"},
    {5, "UTP/4Mbit"},
    {6, "UTP/16Mbit"},
    {0, NULL},
};

static const nv_media_name_t tokenring_options[] = {
    {0x200, "EarlyTokenRelease"},
    {0x400, "SourceRouting"},
    {0x800, "AllRoutes"},
    {0, NULL},
};

static const nv_media_name_t fddi_subtypes[] = {
    {3, "Single-mode"},
    {4, "Multi-mode"},
    {5, "UTP"},
    {0, NULL},
};

static const nv_media_name_t fddi_options[] = {
    {0x100, "Dual-attach"},
    {0, NULL},
};

static const nv_media_name_t ieee80211_subtypes[] = {
    {3, "FH1"},
    {4, "FH2"},
    {8, "DS1"},
    {5, "DS2"},
    {6, "DS5"},
    {7, "DS11"},
    {9, "DS22"},
    {0, NULL},
};

static const nv_media_name_t no_options[] = {
    {0, NULL},
};

static const nv_media_type_t media_types[] = {
    {0x20, {shared_subtypes, ethernet_subtypes}, {shared_options, ethernet_options}},
    {0x40, {shared_subtypes, tokenring_subtypes}, {shared_options, tokenring_options}},
    {0x60, {shared_subtypes, fddi_subtypes}, {shared_options, fddi_options}},
    {0x80, {shared_subtypes, ieee80211_subtypes}, {shared_options, no_options}},
};

int nv_media_status_valid(int status) { return status & NV_MEDIA_STATUS_VALID; }

int nv_media_status_active(int status) { return (status & NV_MEDIA_STATUS_ACTIVE) != 0 ? 1 : 0; }

/* Appends src to the terminated string in dest, truncating to fit size. */
static void append(char* dest, size_t size, const char* src) {
    size_t used = strlen(dest);
    if (used + 1 >= size) return;
    size_t room = size - used - 1;
    size_t n = strlen(src);
    if (n > room) n = room;
    memcpy(dest + used, src, n);
    dest[used + n] = '\0';
}

static const nv_media_type_t* find_type(uint32_t word) {
    uint32_t type = word & NV_MEDIA_TYPE_MASK;
    for (size_t i = 0; i < sizeof media_types / sizeof media_types[0]; i++) {
        if (media_types[i].type == type) return &media_types[i];
    }
    return NULL;
}

static const char* find_subtype(const nv_media_type_t* type, uint32_t word) {
    uint32_t subtype = word & NV_MEDIA_SUBTYPE_MASK;
    for (size_t list = 0; list < 2; list++) {
        for (const nv_media_name_t* entry = type->subtypes[list]; entry->name != NULL; entry++) {
            if (entry->value == subtype) return entry->name;
        }
    }
    return NULL;
}

void nv_media_word_string(int word, char* dest, size_t size) {
    if (size == 0) return;
    dest[0] = '\0';
    uint32_t bits = (uint32_t)word;
    const nv_media_type_t* type = find_type(bits);
    if (type == NULL) {
        append(dest, size, "<unknown type>");
        return;
    }
    const char* subtype = find_subtype(type, bits);
    if (subtype == NULL) {
        append(dest, size, "<unknown subtype>");
        return;
    }
    append(dest, size, subtype);
    int appended = 0;
    for (size_t list = 0; list < 2; list++) {
        for (const nv_media_name_t* entry = type->options[list]; entry->name != NULL; entry++) {
            if ((entry->value & bits) == 0) continue;
            append(dest, size, appended ? "," : " <");
            append(dest, size, entry->name);
            appended = 1;
        }
    }
    if (appended) append(dest, size, ">");
}
