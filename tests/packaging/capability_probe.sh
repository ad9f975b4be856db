#!/bin/bash
# usage: capability_probe.sh other-user|moved-device CAPS DAEMON CLIENT WORKDIR
#
# Run under `unshare -n`, as root. Makes a tun interface named nvprobe0 whose
# holder the daemon can only find with the right capabilities, starts the
# daemon with the bounding set CAPS (setpriv syntax: +sys_ptrace,+net_admin)
# and prints its answer to `app tunnels` as JSON.
#   other-user    the device is held by a process of another uid
#   moved-device  the holder lives in another network namespace than the
#                 device, which was moved into ours
set -euo pipefail
mode=$1 caps=$2 daemon=$3 client=$4 work=$5
holder_code='
import fcntl, os, struct, sys, time
fd = os.open("/dev/net/tun", os.O_RDWR)
fcntl.ioctl(fd, 0x400454ca, struct.pack("16sH", b"nvprobe0", 0x0001 | 0x1000))  # TUNSETIFF, IFF_TUN|IFF_NO_PI
print("held", flush=True)
time.sleep(60)
'
pids=()
trap 'kill "${pids[@]}" 2>/dev/null || true' EXIT

# The holder says "held" on its stdout, a file of ours: it may not write in
# our directory.
wait_for() {
    for _ in $(seq 200); do
        [[ -s $1 ]] && return 0
        sleep 0.05
    done
    echo "capability_probe: $1 never appeared" >&2
    exit 1
}

ip link set lo up
case $mode in
other-user)
    ip tuntap add dev nvprobe0 mode tun user 65534
    setpriv --reuid=65534 --regid=65534 --clear-groups /usr/bin/python3 -c "$holder_code" >"$work/held" &
    pids+=($!)
    wait_for "$work/held"
    ;;
moved-device)
    unshare -n /usr/bin/python3 -c "$holder_code" >"$work/held" &
    pids+=($!)
    wait_for "$work/held"
    nsenter -t "${pids[0]}" -n ip link set nvprobe0 netns $$
    ;;
*)
    echo "capability_probe: unknown mode $mode" >&2
    exit 2
    ;;
esac

setpriv --bounding-set=-all,"$caps" --inh-caps=-all \
    "$daemon" --foreground --state-dir "$work/state" --runtime-dir "$work/run" 2>"$work/daemon.log" &
pids+=($!)
for _ in $(seq 200); do
    sockets=("$work"/run/*)  # the pattern itself while nothing matches
    ((${#sockets[@]} == 2)) && break
    sleep 0.05
done
"$client" admin --runtime-dir "$work/run" app tunnels --json
