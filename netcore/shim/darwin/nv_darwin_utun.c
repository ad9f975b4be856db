/* Tunnel owners on macOS: every process's descriptors, looking for kernel
 * control sockets connected to the utun control. Needs root to see other
 * users' processes; without it they simply yield nothing. A process that
 * exits mid-scan answers with errors or short sizes and is skipped. */
#include <libproc.h>
#include <stdlib.h>
#include <string.h>
#include <sys/proc_info.h>

#include "netcore/shim/nv_shim.h"

_Static_assert(sizeof(nv_utun_owner_t) == 8, "callers exchange 8-byte {pid, unit} records");
_Static_assert(sizeof(struct proc_fdinfo) == 8, "a descriptor list is a run of 8-byte entries");

static const char utun_control_name[] = "com.apple.net.utun_control";

/* Processes started between counting and listing fit in these extra slots. */
enum { extra_pid_slots = 64 };

/* Writes the utun control sockets of one process from out[written] on;
 * returns the new number written, never more than max. */
static int scan_process(pid_t pid, nv_utun_owner_t* out, int written, int max) {
    const int size = proc_pidinfo(pid, PROC_PIDLISTFDS, 0, NULL, 0);
    if (size < 1) return written;
    struct proc_fdinfo* fds = malloc((size_t)size);
    if (fds == NULL) return written;
    const int filled = proc_pidinfo(pid, PROC_PIDLISTFDS, 0, fds, size);
    if (filled < (int)sizeof(struct proc_fdinfo)) {
        free(fds);
        return written;
    }
    const int count = (filled < size ? filled : size) / (int)sizeof(struct proc_fdinfo);
    for (int i = 0; i < count && written < max; ++i) {
        if (fds[i].proc_fdtype != PROX_FDTYPE_SOCKET) continue;
        struct socket_fdinfo info;
        memset(&info, 0, sizeof info);
        if (proc_pidfdinfo(pid, fds[i].proc_fd, PROC_PIDFDSOCKETINFO, &info, (int)sizeof info) != (int)sizeof info) {
            continue;
        }
        if (info.psi.soi_kind != SOCKINFO_KERN_CTL) continue;
        const struct kern_ctl_info* control = &info.psi.soi_proto.pri_kern_ctl;
        if (control->kcsi_unit == 0) continue;
        if (strncmp(control->kcsi_name, utun_control_name, sizeof control->kcsi_name) != 0) continue;
        out[written].pid = pid;
        out[written].unit = control->kcsi_unit;
        ++written;
    }
    free(fds);
    return written;
}

int nv_utun_owners(nv_utun_owner_t* out, int max) {
    const int count = proc_listallpids(NULL, 0);
    if (count < 1) return 0;
    const int capacity = count + extra_pid_slots;
    pid_t* pids = calloc((size_t)capacity, sizeof *pids);
    if (pids == NULL) return 0;
    int listed = proc_listallpids(pids, capacity * (int)sizeof *pids);
    if (listed < 1 || max < 1 || out == NULL) {
        free(pids);
        return 0;
    }
    if (listed > capacity) listed = capacity;
    int written = 0;
    for (int i = 0; i < listed && written < max; ++i) written = scan_process(pids[i], out, written, max);
    free(pids);
    return written;
}
