/* Tunnel owners: the processes that hold a descriptor on the tun device
 * attached to an interface. One pass over /proc: one readlink per
 * descriptor; only tun descriptors cost more (a copy of each, taken through
 * the holder's pidfd, is asked for its interface and namespace). Processes
 * and descriptors that vanish or refuse us (EACCES, ENOENT) are skipped.
 *
 * Interface names are per network namespace, so a device that lives in
 * another namespace than ours is left out: its name here would belong to
 * another interface or to none.
 *
 * IMPORTANT: this fails closed. The name and the namespace both come from
 * the one copied descriptor, which must be the tun device itself; when the
 * copy or either question fails (the holder closed the descriptor in
 * between, or we may not copy it) the descriptor is skipped, never
 * attributed by guesswork. A caller without the right to copy another
 * user's descriptors therefore sees only its own tunnels. */
#define _GNU_SOURCE
#include <dirent.h>
#include <fcntl.h>
#include <linux/if_link.h>
#include <linux/if_tun.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "netcore/shim/linux/nv_linux.h"
#include "netcore/shim/linux/nv_linux_netlink.h"
#include "netcore/shim/nv_cleanup.h"
#include "netcore/shim/nv_shim.h"

static const char tun_device[] = "/dev/net/tun";
/* The tun device's numbers (misc major, TUN_MINOR), whatever its path. */
enum { tun_major = 10, tun_minor = 200 };

typedef struct namespace_id {
    dev_t dev;
    ino_t ino;
} namespace_id_t;

static int namespace_of_fd(int fd, namespace_id_t* id) {
    struct stat st;
    if (fstat(fd, &st) != 0) return 0;
    id->dev = st.st_dev;
    id->ino = st.st_ino;
    return 1;
}

static int same_namespace(const namespace_id_t* a, const namespace_id_t* b) {
    return a->dev == b->dev && a->ino == b->ino;
}

/* The interface and namespace of the tun device behind descriptor `fd` of
 * the process `pidfd` names, both asked of one copy of that descriptor.
 * 1 on success; 0 when the copy is not an attached tun or any step fails. */
static int tun_of_descriptor(int pidfd, int fd, char name[IFNAMSIZ], namespace_id_t* id) {
    NV_AUTO_CLOSE int copy = (int)syscall(SYS_pidfd_getfd, pidfd, fd, 0);
    struct stat st;
    if (copy < 0 || fstat(copy, &st) != 0 || !S_ISCHR(st.st_mode) || major(st.st_rdev) != tun_major ||
        minor(st.st_rdev) != tun_minor) {
        return 0;
    }
    struct ifreq request;
    memset(&request, 0, sizeof request);
    /* Fails (EBADFD) for a descriptor not attached to an interface. */
    if (ioctl(copy, TUNGETIFF, &request) != 0 || request.ifr_name[0] == '\0') return 0;
    NV_AUTO_CLOSE int ns = ioctl(copy, TUNGETDEVNETNS);
    if (ns < 0 || !namespace_of_fd(ns, id)) return 0;
    memcpy(name, request.ifr_name, IFNAMSIZ);
    name[IFNAMSIZ - 1] = '\0';
    return 1;
}

static int all_digits(const char* text) {
    if (!*text) return 0;
    for (; *text; ++text) {
        if (*text < '0' || *text > '9') return 0;
    }
    return 1;
}

/* Records of one process; returns how many it wrote. */
static int scan_process(int proc, const char* pid_text, const namespace_id_t* ours, nv_utun_owner_t* out, int max) {
    char path[64];
    strcpy(path, pid_text);
    strcat(path, "/fd");
    NV_AUTO_CLOSE int opened = openat(proc, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    NV_AUTO_CLOSEDIR DIR* dir = opened >= 0 ? fdopendir(opened) : NULL;
    if (!dir) return 0;
    const int fds = nv_take_fd(&opened); /* the listing's now */
    const pid_t pid = (pid_t)strtol(pid_text, NULL, 10);
    NV_AUTO_CLOSE int pidfd = -1; /* opened at the first tun descriptor: most processes have none */
    int written = 0;
    struct dirent* entry;
    while (written < max && (entry = readdir(dir)) != NULL) {
        if (!all_digits(entry->d_name) || strlen(entry->d_name) > 10) continue;
        char target[sizeof tun_device + 1];
        ssize_t n = readlinkat(fds, entry->d_name, target, sizeof target);
        if (n != (ssize_t)(sizeof tun_device - 1) || memcmp(target, tun_device, (size_t)n) != 0) continue;

        if (pidfd < 0) pidfd = (int)syscall(SYS_pidfd_open, pid, 0);
        if (pidfd < 0) break; /* gone, or not ours to ask */
        char name[IFNAMSIZ];
        namespace_id_t theirs;
        int fd = (int)strtol(entry->d_name, NULL, 10);
        if (!tun_of_descriptor(pidfd, fd, name, &theirs) || !same_namespace(&theirs, ours)) continue;
        unsigned index = if_nametoindex(name);
        if (index == 0) continue; /* gone since */

        out[written].pid = (int32_t)pid;
        out[written].unit = index;
        memcpy(out[written].ifname, name, sizeof out[written].ifname);
        ++written;
    }
    return written;
}

static void count_tun(const struct nlmsghdr* message, void* context) {
    nv_linux_link_t link;
    if (nv_linux_parse_link(message, &link) && strcmp(link.kind, "tun") == 0) ++*(int*)context;
}

static void restart_count(void* context) { *(int*)context = 0; }

/* How many tun interfaces this namespace has (tap ones count too), or -1
 * when the kernel would not say. The dump asks the kernel to leave out other
 * kinds; one that cannot is answered with every interface and counted the
 * same way. A dump that kept being interrupted may have missed one: that is
 * not knowing either. */
static int tun_interfaces(void) {
    nv_nl_request_t request;
    struct ifinfomsg* info = nv_nl_request(&request, RTM_GETLINK, 0, sizeof *info);
    info->ifi_family = AF_UNSPEC;
    const size_t linkinfo = nv_nl_nest_start(&request, IFLA_LINKINFO);
    nv_nl_put_string(&request, IFLA_INFO_KIND, "tun");
    nv_nl_nest_end(&request, linkinfo);

    NV_AUTO_NETLINK nv_nl_socket_t* socket = nv_nl_open(NETLINK_ROUTE);
    int count = 0;
    nv_nl_dump_t dump = {
        .type = RTM_NEWLINK, .visit = count_tun, .restart = restart_count, .context = &count, .attempts = 3};
    return socket && nv_nl_dump(socket, &request, &dump) && !dump.interrupted ? count : -1;
}

int nv_utun_owners(nv_utun_owner_t* out, int max) {
    if (!out || max < 1) return 0;
    /* Without a tun interface here no descriptor can own one, and the walk
     * over every process is spared. */
    if (tun_interfaces() == 0) return 0;
    NV_AUTO_CLOSE int proc = open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (proc < 0) return 0;
    namespace_id_t ours;
    NV_AUTO_CLOSE int self = openat(proc, "self/ns/net", O_RDONLY | O_CLOEXEC);
    if (self < 0 || !namespace_of_fd(self, &ours)) return 0;
    NV_AUTO_CLOSE int listing = dup(proc);
    NV_AUTO_CLOSEDIR DIR* dir = listing >= 0 ? fdopendir(listing) : NULL;
    if (!dir) return 0;
    (void)nv_take_fd(&listing); /* the listing's now */
    int written = 0;
    struct dirent* entry;
    while (written < max && (entry = readdir(dir)) != NULL) {
        if (!all_digits(entry->d_name) || strlen(entry->d_name) > 10) continue;
        written += scan_process(proc, entry->d_name, &ours, out + written, max - written);
    }
    return written;
}
