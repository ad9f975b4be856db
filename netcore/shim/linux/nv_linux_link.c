/* Link-level address accessors over Linux's link-level socket address. */
#include <linux/if_packet.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>

#include "netcore/shim/linux/nv_linux.h"
#include "netcore/shim/nv_shim.h"

static const struct sockaddr_ll* link_address(const struct sockaddr_dl* sdl) {
    const struct sockaddr_ll* sll = (const struct sockaddr_ll*)(const void*)sdl;
    if (!sll || sll->sll_family != AF_PACKET) return NULL;
    return sll;
}

int nv_sockaddr_dl_lladdr(const struct sockaddr_dl* sdl, uint8_t* out, size_t capacity) {
    const struct sockaddr_ll* sll = link_address(sdl);
    if (!sll || !out || sll->sll_halen == 0 || sll->sll_halen > NV_LINUX_LINK_ADDRESS_MAX || capacity < sll->sll_halen)
        return 0;
    memcpy(out, (const uint8_t*)sll + offsetof(struct sockaddr_ll, sll_addr), sll->sll_halen);
    return sll->sll_halen;
}

unsigned int nv_sockaddr_dl_index(const struct sockaddr_dl* sdl) {
    const struct sockaddr_ll* sll = link_address(sdl);
    if (!sll || sll->sll_ifindex <= 0) return 0;
    return (unsigned int)sll->sll_ifindex;
}

uint8_t nv_sockaddr_dl_type(const struct sockaddr_dl* sdl) {
    const struct sockaddr_ll* sll = link_address(sdl);
    return sll ? nv_linux_iftype(sll->sll_hatype) : 0;
}
