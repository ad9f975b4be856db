/*
 * One record of nv_utun_owners on macOS, 8 bytes: the process holding a utun
 * kernel-control socket and that socket's unit exactly as the kernel reports
 * it. Units are 1-based and never 0: unit N belongs to the interface utunN-1.
 */
#ifndef NETVANE_NETCORE_SHIM_DARWIN_NV_UTUN_OWNER_H
#define NETVANE_NETCORE_SHIM_DARWIN_NV_UTUN_OWNER_H

#include <stdint.h>

typedef struct nv_utun_owner {
    int32_t pid;
    uint32_t unit;
} nv_utun_owner_t;

#endif
