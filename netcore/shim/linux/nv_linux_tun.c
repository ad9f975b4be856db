/* Tunnel owners: the processes that hold a descriptor on the tun device
 * attached to an interface. One pass over /proc: one readlink per
 * descriptor; only tun descriptors cost more (their fdinfo names the
 * interface). Processes and descriptors that vanish or refuse us (EACCES,
 * ENOENT) are skipped.
 *
 * Interface names are per network namespace, so a device that lives in
 * another namespace than ours is left out: its name here would belong to
 * another interface or to none. */
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
#include <unistd.h>

#include "netcore/shim/linux/nv_linux.h"
#include "netcore/shim/nv_shim.h"

static const char tun_device[] = "/dev/net/tun";

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

/* The namespace the device behind the descriptor lives in, asked of a copy
 * of that descriptor; the holder's own namespace when we may not copy it. */
static int device_namespace(int proc, const char* pid_text, pid_t pid, int fd, namespace_id_t* id) {
    int found = 0;
    int pidfd = (int)syscall(SYS_pidfd_open, pid, 0);
    if (pidfd >= 0) {
        int copy = (int)syscall(SYS_pidfd_getfd, pidfd, fd, 0);
        if (copy >= 0) {
            int ns = ioctl(copy, TUNGETDEVNETNS);
            if (ns >= 0) {
                found = namespace_of_fd(ns, id);
                close(ns);
            }
            close(copy);
        }
        close(pidfd);
    }
    if (!found) {
        char path[40];
        strcpy(path, pid_text);
        strcat(path, "/ns/net");
        int ns = openat(proc, path, O_RDONLY | O_CLOEXEC);
        if (ns >= 0) {
            found = namespace_of_fd(ns, id);
            close(ns);
        }
    }
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
    int written = 0;
    struct dirent* entry;
    while (written < max && (entry = readdir(dir)) != NULL) {
        if (!all_digits(entry->d_name) || strlen(entry->d_name) > 10) continue;
        char target[sizeof tun_device + 1];
        ssize_t n = readlinkat(fds, entry->d_name, target, sizeof target);
        if (n != (ssize_t)(sizeof tun_device - 1) || memcmp(target, tun_device, (size_t)n) != 0) continue;

        strcpy(path, pid_text);
        strcat(path, "/fdinfo/");
        strcat(path, entry->d_name);
        char info[1024];
        int length = nv_linux_read_text(proc, path, info, sizeof info);
        char name[16];
        /* A descriptor not yet attached to an interface has no iff line. */
        if (length <= 0 || !nv_linux_fdinfo_iff(info, (size_t)length, name)) continue;

        namespace_id_t theirs;
        int fd = (int)strtol(entry->d_name, NULL, 10);
        if (!device_namespace(proc, pid_text, pid, fd, &theirs) || !same_namespace(&theirs, ours)) continue;
        unsigned index = if_nametoindex(name);
        if (index == 0) continue; /* gone since */

        out[written].pid = (int32_t)pid;
        out[written].unit = index;
        memcpy(out[written].ifname, name, sizeof name);
        ++written;
    }
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
