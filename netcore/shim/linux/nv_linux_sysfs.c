/* Functional type from sysfs and ND settings from the IPv6 sysctls.
 * IMPORTANT: /proc/sys/net follows the caller's network namespace, sysfs the
 * namespace it was mounted in; inside a namespace of its own a caller needs
 * its own sysfs mount for the functional type to name its interfaces. */
#include <fcntl.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "netcore/shim/linux/nv_linux.h"
#include "netcore/shim/nv_records.h"
#include "netcore/shim/nv_shim.h"

int nv_linux_read_text(int dirfd, const char* path, char* buf, size_t size) {
    if (size == 0) return -1;
    int fd = openat(dirfd, path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    ssize_t n = read(fd, buf, size - 1);
    close(fd);
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

/* A directory named after the interface below base; -1 when there is none. */
static int open_interface_dir(const char* base, const char* ifname) {
    char name[16];
    nv_copy_ifname(name, ifname);
    if (name[0] == '\0' || name[0] == '.' || strchr(name, '/')) return -1;
    char path[96];
    snprintf(path, sizeof path, "%s/%s", base, name);
    return open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
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

uint32_t nv_linux_read_functional_type(const char* ifname, uint32_t hardware_type, int hardware) {
    char devtype[32] = "";
    int wireless = 0;
    /* Only hardware interfaces need the costlier questions (most interfaces
     * of a busy host are virtual). */
    int dir = hardware && hardware_type != ARPHRD_LOOPBACK ? open_interface_dir("/sys/class/net", ifname) : -1;
    if (dir >= 0) {
        uevent_devtype(dir, devtype, sizeof devtype);
        wireless = faccessat(dir, "phy80211", F_OK, 0) == 0 || faccessat(dir, "wireless", F_OK, 0) == 0;
        close(dir);
    }
    return nv_linux_functional_type(hardware_type, devtype, wireless, hardware);
}

int nv_linux_sysfs_has_device(const char* ifname) {
    int dir = open_interface_dir("/sys/class/net", ifname);
    if (dir < 0) return 0;
    int found = faccessat(dir, "device", F_OK, 0) == 0;
    close(dir);
    return found;
}

int nv_get_functional_type(int sock, const char* ifname, uint32_t* out) {
    (void)sock;
    if (!ifname || !out) return 0;
    int dir = open_interface_dir("/sys/class/net", ifname);
    if (dir < 0) return 0;
    long type = 0;
    int ok = nv_linux_read_long(dir, "type", &type);
    int hardware = ok && type != ARPHRD_LOOPBACK && faccessat(dir, "device", F_OK, 0) == 0;
    close(dir);
    if (ok) *out = nv_linux_read_functional_type(ifname, (uint32_t)type, hardware);
    return ok;
}

int nv_get_nd6_flags(int sock, const char* ifname, uint32_t* out) {
    if (!ifname || !out) return 0;
    int dir = open_interface_dir("/proc/sys/net/ipv6/conf", ifname);
    if (dir < 0) return 0;
    long accept_ra = 0, disable_ipv6 = 0, accept_dad = 0;
    int ok = nv_linux_read_long(dir, "accept_ra", &accept_ra) && nv_linux_read_long(dir, "disable_ipv6", &disable_ipv6) &&
             nv_linux_read_long(dir, "accept_dad", &accept_dad);
    close(dir);
    if (!ok) return 0;
    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    nv_copy_ifname(ifr.ifr_name, ifname);
    int noarp = ioctl(sock, SIOCGIFFLAGS, &ifr) == 0 && (ifr.ifr_flags & IFF_NOARP);
    *out = nv_linux_nd6_flags((int)accept_ra, (int)disable_ipv6, (int)accept_dad, noarp);
    return 1;
}
