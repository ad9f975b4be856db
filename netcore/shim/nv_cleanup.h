/*
 * Ownership in the C shim, declared where the variable is: a variable marked
 * NV_AUTO_CLOSE, NV_AUTO_FREE or NV_AUTO_CLOSEDIR is released when it goes
 * out of scope, on every path, so no early return can leak it. GCC and Clang
 * both honour the attribute. A value handed on to another owner is taken
 * with nv_take_fd / nv_take_ptr, which leave the variable empty.
 */
#ifndef NETVANE_NETCORE_SHIM_NV_CLEANUP_H
#define NETVANE_NETCORE_SHIM_NV_CLEANUP_H

#include <dirent.h>
#include <stdlib.h>
#include <unistd.h>

#define NV_CLEANUP(release) __attribute__((cleanup(release)))

static inline void nv_close_fd(int* fd) {
    if (*fd >= 0) close(*fd);
}
static inline void nv_free_ptr(void* pointer) { free(*(void**)pointer); }
static inline void nv_closedir_ptr(DIR** dir) {
    if (*dir) closedir(*dir);
}

#define NV_AUTO_CLOSE NV_CLEANUP(nv_close_fd)
#define NV_AUTO_FREE NV_CLEANUP(nv_free_ptr)
#define NV_AUTO_CLOSEDIR NV_CLEANUP(nv_closedir_ptr)

static inline int nv_take_fd(int* fd) {
    int taken = *fd;
    *fd = -1;
    return taken;
}
static inline void* nv_take_ptr(void* pointer) {
    void* taken = *(void**)pointer;
    *(void**)pointer = NULL;
    return taken;
}

#endif
