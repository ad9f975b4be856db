#include "netcore/shim/nv_records.h"

#include <string.h>

/* Byte positions in the BSD link-level socket address. */
enum { link_len = 0, link_family_at = 1, link_index = 2, link_type = 4, link_nlen = 5, link_alen = 6 };

void nv_copy_ifname(char dest[NV_IFNAME_FIELD], const char* ifname) {
    memset(dest, 0, NV_IFNAME_FIELD);
    if (ifname) strncpy(dest, ifname, NV_IFNAME_FIELD - 1);
}

int nv_media_from_reply(int32_t current, int32_t active, int32_t status, nv_media_t* out) {
    if (active == 0 || out == NULL) return 0;
    out->current = current;
    out->active = active;
    out->status = status;
    return 1;
}

int nv_ifdata_from_mib(const char* ifname, const nv_ifmib_record_t* record, nv_ifdata_t* out) {
    if (ifname == NULL || record == NULL || out == NULL) return 0;
    if (strncmp(record->name, ifname, NV_IFNAME_FIELD) != 0) return 0;
    out->ibytes = record->ibytes;
    out->obytes = record->obytes;
    out->ipackets = record->ipackets;
    out->opackets = record->opackets;
    out->ierrors = record->ierrors;
    out->oerrors = record->oerrors;
    out->imcasts = record->imcasts;
    out->omcasts = record->omcasts;
    out->collisions = record->collisions;
    out->iqdrops = record->iqdrops;
    out->baudrate = record->baudrate;
    out->mtu = record->mtu;
    out->type = record->type;
    return 1;
}

static int is_link(const uint8_t* sdl, uint8_t link_family) {
    return sdl != NULL && sdl[link_family_at] == link_family;
}

int nv_link_address_copy(const uint8_t* sdl, uint8_t link_family, uint8_t* out, size_t capacity) {
    if (!is_link(sdl, link_family) || out == NULL) return 0;
    const size_t name_length = sdl[link_nlen];
    const size_t address_length = sdl[link_alen];
    if (address_length == 0 || capacity < address_length) return 0;
    /* The length byte bounds what the address owns: a name and address
     * claiming more would have the copy read past it. */
    if (NV_LINK_DATA_OFFSET + name_length + address_length > sdl[link_len]) return 0;
    memcpy(out, sdl + NV_LINK_DATA_OFFSET + name_length, address_length);
    return (int)address_length;
}

unsigned int nv_link_address_index(const uint8_t* sdl, uint8_t link_family) {
    if (!is_link(sdl, link_family)) return 0;
    uint16_t index;
    memcpy(&index, sdl + link_index, sizeof index);
    return index;
}

uint8_t nv_link_address_type(const uint8_t* sdl, uint8_t link_family) {
    return is_link(sdl, link_family) ? sdl[link_type] : 0;
}
