/*
 * One record of nv_utun_owners on Linux: a process holding a descriptor on
 * the tun device of an interface. Tunnel names are chosen freely rather than
 * numbered, so the record carries the interface's name, and `unit` is the
 * interface's index (never 0).
 */
#ifndef NETVANE_NETCORE_SHIM_LINUX_NV_UTUN_OWNER_H
#define NETVANE_NETCORE_SHIM_LINUX_NV_UTUN_OWNER_H

#include <stdint.h>

typedef struct nv_utun_owner {
    int32_t pid;
    uint32_t unit;
    char ifname[16]; /* always terminated */
} nv_utun_owner_t;

#endif
