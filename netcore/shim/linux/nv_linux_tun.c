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
    int copy = (int)syscall(SYS_pidfd_getfd, pidfd, fd, 0);
    if (copy < 0) return 0;
    int found = 0;
    struct stat st;
    if (fstat(copy, &st) == 0 && S_ISCHR(st.st_mode) && major(st.st_rdev) == tun_major &&
        minor(st.st_rdev) == tun_minor) {
        struct ifreq request;
        memset(&request, 0, sizeof request);
        /* Fails (EBADFD) for a descriptor not attached to an interface. */
        if (ioctl(copy, TUNGETIFF, &request) == 0 && request.ifr_name[0] != '\0') {
            int ns = ioctl(copy, TUNGETDEVNETNS);
            if (ns >= 0) {
                found = namespace_of_fd(ns, id);
                close(ns);
            }
            memcpy(name, request.ifr_name, IFNAMSIZ);
            name[IFNAMSIZ - 1] = '\0';
        }
    }
    close(copy);
    return found;
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
    int fds = openat(proc, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fds < 0) return 0;
    DIR* dir = fdopendir(fds);
    if (!dir) {
        close(fds);
        return 0;
    }
    const pid_t pid = (pid_t)strtol(pid_text, NULL, 10);
    int pidfd = -1; /* opened at the first tun descriptor: most processes have none */
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
    if (pidfd >= 0) close(pidfd);
    closedir(dir);
    return written;
}

static void count_tun(const struct nlmsghdr* message, void* context) {
    const struct ifinfomsg* info = NLMSG_DATA(message);
    int remaining = (int)IFLA_PAYLOAD(message);
    for (const struct rtattr* a = IFLA_RTA(info); RTA_OK(a, remaining); a = RTA_NEXT(a, remaining)) {
        if (a->rta_type != IFLA_LINKINFO) continue;
        int inner = (int)RTA_PAYLOAD(a);
        for (const struct rtattr* k = RTA_DATA(a); RTA_OK(k, inner); k = RTA_NEXT(k, inner)) {
            if (k->rta_type == IFLA_INFO_KIND && RTA_PAYLOAD(k) == 4 && memcmp(RTA_DATA(k), "tun", 4) == 0) {
                ++*(int*)context;
            }
        }
    }
}

/* How many tun interfaces this namespace has (tap ones count too), or -1
 * when the kernel would not say. The dump asks the kernel to leave out other
 * kinds; one that cannot is answered with every interface and counted the
 * same way. */
static int tun_interfaces(void) {
    struct {
        struct nlmsghdr header;
        struct ifinfomsg info;
        struct rtattr linkinfo;
        struct rtattr kind;
        char name[4];
    } request;
    memset(&request, 0, sizeof request);
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETLINK;
    request.header.nlmsg_seq = 1;
    request.info.ifi_family = AF_UNSPEC;
    request.linkinfo.rta_type = IFLA_LINKINFO;
    request.linkinfo.rta_len = RTA_LENGTH(RTA_LENGTH(sizeof request.name));
    request.kind.rta_type = IFLA_INFO_KIND;
    request.kind.rta_len = RTA_LENGTH(sizeof request.name);
    memcpy(request.name, "tun", 4);

    int fd = nv_linux_netlink_socket();
    int count = 0;
    int ok = nv_linux_netlink_dump(fd, &request.header, RTM_NEWLINK, count_tun, &count, NULL);
    if (fd >= 0) close(fd);
    return ok ? count : -1;
}

int nv_utun_owners(nv_utun_owner_t* out, int max) {
    if (!out || max < 1) return 0;
    /* Without a tun interface here no descriptor can own one, and the walk
     * over every process is spared. */
    if (tun_interfaces() == 0) return 0;
    int proc = open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (proc < 0) return 0;
    namespace_id_t ours;
    int self = openat(proc, "self/ns/net", O_RDONLY | O_CLOEXEC);
    int known = self >= 0 && namespace_of_fd(self, &ours);
    if (self >= 0) close(self);
    int listing = known ? dup(proc) : -1;
    DIR* dir = listing >= 0 ? fdopendir(listing) : NULL;
    if (!dir) {
        if (listing >= 0) close(listing);
        close(proc);
        return 0;
    }
    int written = 0;
    struct dirent* entry;
    while (written < max && (entry = readdir(dir)) != NULL) {
        if (!all_digits(entry->d_name) || strlen(entry->d_name) > 10) continue;
        written += scan_process(proc, entry->d_name, &ours, out + written, max - written);
    }
    closedir(dir);
    close(proc);
    return written;
}
