/* Functional type and hardware from sysfs, ND settings from the IPv6
 * sysctls. IMPORTANT: /proc/sys/net follows the caller's network namespace,
 * sysfs the namespace it was mounted in; inside a namespace of its own a
 * caller needs its own sysfs mount for these to name its interfaces. */
#include <fcntl.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "netcore/shim/linux/nv_linux.h"
#include "netcore/shim/nv_cleanup.h"
#include "netcore/shim/nv_records.h"
#include "netcore/shim/nv_shim.h"

/* Every sysfs path we read is this short: a name and a few components. */
#define NV_SYSFS_PATH_SIZE 128
/* sysfs links lead a few directories up and a handful down. */
#define NV_SYSFS_LINK_SIZE 512

int nv_linux_read_text(int dirfd, const char* path, char* buf, size_t size) {
    if (size == 0) return -1;
    NV_AUTO_CLOSE int fd = openat(dirfd, path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    ssize_t n = read(fd, buf, size - 1);
    if (n < 0) return -1;
    buf[n] = '\0';
    return (int)n;
}

int nv_linux_read_long(int dirfd, const char* path, long* out) {
    char text[32];
    if (nv_linux_read_text(dirfd, path, text, sizeof text) <= 0) return 0;
    char* end = NULL;
    long value = strtol(text, &end, 10);
    if (end == text || (*end != '\n' && *end != '\0')) return 0;
    *out = value;
    return 1;
}

/* The interface's name as a path component; 0 for one that cannot name an
 * interface (empty, a dot name, a slash). */
static int component(const char* ifname, char name[16]) {
    nv_copy_ifname(name, ifname);
    return name[0] != '\0' && name[0] != '.' && !strchr(name, '/');
}

/* `path` below sysfs, as a directory descriptor and a path relative to it. */
static int sysfs_path(int sysfs, const char* path, char* out, size_t size) {
    const int n = sysfs < 0 ? snprintf(out, size, "/sys/%s", path) : snprintf(out, size, "%s", path);
    return n > 0 && (size_t)n < size;
}

static int sysfs_dirfd(int sysfs) { return sysfs < 0 ? AT_FDCWD : sysfs; }

/* The interface's directory in sysfs, or -1. */
static int open_interface(int sysfs, const char* ifname) {
    char name[16], relative[NV_SYSFS_PATH_SIZE], path[NV_SYSFS_PATH_SIZE];
    if (!component(ifname, name) || snprintf(relative, sizeof relative, "class/net/%s", name) <= 0 ||
        !sysfs_path(sysfs, relative, path, sizeof path)) {
        return -1;
    }
    return openat(sysfs_dirfd(sysfs), path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

/* Joins a relative link target onto `base` (both relative to the sysfs
 * root) into `out`, resolving "." and ".."; 0 when it would leave the root
 * or does not fit. */
static int resolve_link(const char* base, const char* target, char* out, size_t size) {
    char joined[2 * NV_SYSFS_LINK_SIZE];
    if (target[0] == '/' || snprintf(joined, sizeof joined, "%s/%s", base, target) >= (int)sizeof joined) return 0;
    size_t used = 0;
    out[0] = '\0';
    for (char* saved = NULL, *part = strtok_r(joined, "/", &saved); part; part = strtok_r(NULL, "/", &saved)) {
        if (strcmp(part, ".") == 0) continue;
        if (strcmp(part, "..") == 0) {
            if (used == 0) return 0;
            char* slash = strrchr(out, '/');
            used = slash ? (size_t)(slash - out) : 0;
            out[used] = '\0';
            continue;
        }
        const size_t length = strlen(part);
        if (used + (used ? 1 : 0) + length + 1 > size) return 0;
        if (used) out[used++] = '/';
        memcpy(out + used, part, length + 1);
        used += length;
    }
    return 1;
}

/* Where the link at `relative` leads, relative to the sysfs root (`base`
 * is the directory holding the link); 0 when it is no link. */
static int follow(int sysfs, const char* relative, const char* base, char* out, size_t size) {
    char path[NV_SYSFS_PATH_SIZE], target[NV_SYSFS_LINK_SIZE];
    if (!sysfs_path(sysfs, relative, path, sizeof path)) return 0;
    const ssize_t n = readlinkat(sysfs_dirfd(sysfs), path, target, sizeof target);
    if (n <= 0 || (size_t)n >= sizeof target) return 0;
    target[n] = '\0';
    return resolve_link(base, target, out, size);
}

static int is_virtual(const char* place) { return strncmp(place, "devices/virtual/", 16) == 0; }

int nv_linux_sysfs_has_device(int sysfs, const char* ifname) {
    char name[16], entry[NV_SYSFS_PATH_SIZE], device_link[NV_SYSFS_PATH_SIZE];
    char directory[NV_SYSFS_LINK_SIZE], device[NV_SYSFS_LINK_SIZE];
    if (!component(ifname, name)) return 0;
    snprintf(entry, sizeof entry, "class/net/%s", name);
    /* Most interfaces of a busy host are virtual, and their own entry says
     * so: the device link is read only for the others. */
    if (!follow(sysfs, entry, "class/net", directory, sizeof directory) || is_virtual(directory)) return 0;
    const int n = snprintf(device_link, sizeof device_link, "class/net/%s/device", name);
    return n > 0 && (size_t)n < sizeof device_link && follow(sysfs, device_link, directory, device, sizeof device) &&
           !is_virtual(device);
}

/* Radios have wireless attributes of their drivers' own. */
static int wireless_in(int dir) {
    return dir >= 0 && (faccessat(dir, "phy80211", F_OK, 0) == 0 || faccessat(dir, "wireless", F_OK, 0) == 0);
}

int nv_linux_sysfs_wireless(int sysfs, const char* ifname) {
    NV_AUTO_CLOSE int dir = open_interface(sysfs, ifname);
    return wireless_in(dir);
}

static void uevent_devtype(int dirfd, char* devtype, size_t size) {
    char text[512];
    devtype[0] = '\0';
    if (nv_linux_read_text(dirfd, "uevent", text, sizeof text) <= 0) return;
    const char* line = strstr(text, "DEVTYPE=");
    if (!line || (line != text && line[-1] != '\n')) return;
    line += 8;
    size_t n = strcspn(line, "\n");
    if (n >= size) n = size - 1;
    memcpy(devtype, line, n);
    devtype[n] = '\0';
}

uint32_t nv_linux_read_functional_type(int sysfs, const char* ifname, uint32_t hardware_type, int hardware) {
    char devtype[32] = "";
    int wireless = 0;
    /* Only hardware interfaces need the costlier questions (most interfaces
     * of a busy host are virtual). */
    if (hardware && hardware_type != ARPHRD_LOOPBACK) {
        NV_AUTO_CLOSE int dir = open_interface(sysfs, ifname);
        if (dir >= 0) uevent_devtype(dir, devtype, sizeof devtype);
        wireless = wireless_in(dir);
    }
    return nv_linux_functional_type(hardware_type, devtype, wireless, hardware);
}

int nv_get_functional_type(int sock, const char* ifname, uint32_t* out) {
    (void)sock;
    if (!ifname || !out) return 0;
    NV_AUTO_CLOSE int dir = open_interface(NV_LINUX_SYSFS, ifname);
    long type = 0;
    if (dir < 0 || !nv_linux_read_long(dir, "type", &type)) return 0;
    const int hardware = type != ARPHRD_LOOPBACK && nv_linux_sysfs_has_device(NV_LINUX_SYSFS, ifname);
    *out = nv_linux_read_functional_type(NV_LINUX_SYSFS, ifname, (uint32_t)type, hardware);
    return 1;
}

int nv_get_nd6_flags(int sock, const char* ifname, uint32_t* out) {
    char name[16], path[NV_SYSFS_PATH_SIZE];
    if (!ifname || !out || !component(ifname, name)) return 0;
    snprintf(path, sizeof path, "/proc/sys/net/ipv6/conf/%s", name);
    NV_AUTO_CLOSE int dir = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    long accept_ra = 0, disable_ipv6 = 0, accept_dad = 0;
    if (dir < 0 || !nv_linux_read_long(dir, "accept_ra", &accept_ra) ||
        !nv_linux_read_long(dir, "disable_ipv6", &disable_ipv6) ||
        !nv_linux_read_long(dir, "accept_dad", &accept_dad)) {
        return 0;
    }
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    nv_copy_ifname(ifr.ifr_name, ifname);
    int noarp = ioctl(sock, SIOCGIFFLAGS, &ifr) == 0 && (ifr.ifr_flags & IFF_NOARP);
    *out = nv_linux_nd6_flags((int)accept_ra, (int)disable_ipv6, (int)accept_dad, noarp);
    return 1;
}
