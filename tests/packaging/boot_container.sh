#!/bin/bash
# usage: boot_container.sh ROOT [SYSTEMD_ARGUMENT...]
#
# Boots systemd as PID 1 of fresh PID, network, UTS, IPC and mount
# namespaces with ROOT as its root mount, the way a container manager does, so
# that the units a package installed run for real without touching this
# machine: /sys and /proc/sys are read-only, /dev holds a few nodes, module
# loading, clock setting and raw I/O are not in the capability set (units
# that need them skip themselves), and the container's control groups sit
# below a fresh group under each of ours. ROOT's /run and /tmp should be
# mounted by the caller so that it can reach the sockets in there.
#
# Runs until PID 1 exits (SIGRTMIN+4 asks it to power off) and dies with its
# parent. The control groups, named netvane-boot-PID after this script's
# process, are the caller's to remove.
set -euo pipefail
root=$(realpath "$1")
shift
group="netvane-boot-$$"

# One group below ours in every hierarchy that systemd uses (the cpuset
# hierarchy would need its cpus and memory nodes copied). The list is read
# whole first: moving changes what the file says.
mapfile -t memberships </proc/self/cgroup
for membership in "${memberships[@]}"; do
    IFS=: read -r _ controllers path <<<"$membership"
    case $controllers in
    "") hierarchy=/sys/fs/cgroup/unified ;;
    name=systemd) hierarchy=/sys/fs/cgroup/systemd ;;
    *cpuset*) continue ;;
    *) hierarchy=/sys/fs/cgroup/${controllers%%,*} ;;
    esac
    mountpoint -q "$hierarchy" || continue
    mkdir "$hierarchy${path%/}/$group"
    echo $$ >"$hierarchy${path%/}/$group/cgroup.procs"
done

container_init() {
    # PID 1 of the new namespaces, before it becomes systemd.
    set -euo pipefail
    mount -t proc proc "$root/proc"
    mount --bind "$root/proc/sys" "$root/proc/sys"
    mount -o remount,bind,ro "$root/proc/sys"
    mount -t sysfs -o ro sysfs "$root/sys"
    # A tmpfs of the container's own holds the hierarchies: systemd remounts
    # it read-only, which must not reach ours.
    mount -t tmpfs -o mode=0755 tmpfs "$root/sys/fs/cgroup"
    for hierarchy in /sys/fs/cgroup/*; do
        mountpoint -q "$hierarchy" || continue
        mkdir "$root$hierarchy"
        mount --bind "$hierarchy" "$root$hierarchy"
    done
    mount -t tmpfs -o mode=0755,nosuid tmpfs "$root/dev"
    for node in null zero full random urandom tty net/tun; do
        mkdir -p "$(dirname "$root/dev/$node")"
        touch "$root/dev/$node"
        mount --bind "/dev/$node" "$root/dev/$node"
    done
    mkdir "$root/dev/pts" "$root/dev/shm"
    mount -t devpts -o newinstance,ptmxmode=0666,mode=0620 devpts "$root/dev/pts"
    ln -s pts/ptmx "$root/dev/ptmx"
    mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
    # The root becomes the namespace's root mount, as on a real machine, not
    # a chroot: paths of other processes' files (in /proc/PID/fd) read the
    # same from inside the services' own mount namespaces.
    cd "$root"
    pivot_root . .
    umount --lazy .
    exec setpriv --bounding-set=-sys_module,-sys_time,-sys_rawio,-sys_boot,-mknod,-audit_control \
        /usr/bin/env -i container=netvane-test /lib/systemd/systemd --system --log-target=journal "$@"
}

export root
export -f container_init
exec setpriv --pdeathsig KILL unshare --mount --propagation private --pid --fork --net --uts --ipc --kill-child \
    bash -c 'container_init "$@"' container_init "$@"
