#!/usr/bin/env bash
# Whole-process comparison with iproute2, in a private network namespace:
# - 200 veth interfaces (100 pairs), each with an IPv4 and an IPv6 address:
#   `netvane status --json` beside `ip -s -d addr show`;
# - 1,000 idle processes and 10 tuns held by processes of their own:
#   `netvane tunnels --json` beside `ip -d tuntap show`;
# then the in-process benchmark (interfaces_bench) in the same namespace.
#
#   bench/interfaces/compare_with_iproute2.sh BUILD_DIR [RUNS]
#
# Needs root. The script re-runs itself under `unshare -n -m`, so every
# interface it makes vanishes with it; the processes it starts are killed on
# exit. No packet leaves the namespace.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=../checked_timing.sh
source "$(dirname "$0")/../checked_timing.sh"

build=${1:?usage: $0 BUILD_DIR [RUNS]}
runs=${2:-50}
build=$(cd "$build" && pwd)
netvane="$build/tools/netvane/netvane"
bench="$build/bench/interfaces/interfaces_bench"
for tool in "$netvane" "$bench"; do
  [[ -x $tool ]] || { echo "missing $tool: build the netvane and interfaces_bench targets" >&2; exit 1; }
done

if [[ ${NETVANE_BENCH_IN_NAMESPACE:-} != 1 ]]; then
  export NETVANE_BENCH_IN_NAMESPACE=1
  exec unshare -n -m "$0" "$@"
fi

pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
}
trap cleanup EXIT

# Our own sysfs, so that /sys/class/net lists this namespace's interfaces.
mount --make-rprivate /
mount -t sysfs sysfs /sys
ip link set lo up

batch=$(mktemp)
for i in $(seq 0 99); do
  a=$((2 * i)) b=$((2 * i + 1))
  echo "link add nvb$a type veth peer name nvb$b"
  echo "addr add 10.$((a / 250)).$((a % 250)).1/24 dev nvb$a"
  echo "addr add 10.$((b / 250 + 100)).$((b % 250)).1/24 dev nvb$b"
  echo "addr add fd00:$a::1/64 dev nvb$a nodad"
  echo "addr add fd00:$b::1/64 dev nvb$b nodad"
  echo "link set nvb$a up"
  echo "link set nvb$b up"
done > "$batch"
ip -batch "$batch"
rm -f "$batch"

# What each timed command must print: the last interface or tunnel made
# (a reading that holds it holds the others), or the program's name.
last=nvb199
reading() { grep -q "\"name\": \"$last\"" "$1"; }
listing() { grep -q ": $last@" "$1"; }
owners() { grep -q '"nvtun9"' "$1"; }
tuntaps() { grep -q '^nvtun9:' "$1"; }
versions() { grep -qE '^netvane |iproute2' "$1"; }

report() {  # label ours theirs
  awk -v l="$1" -v a="$2" -v b="$3" 'BEGIN { printf "%-44s %8.2f ms  vs %8.2f ms  ratio %.2fx\n", l, a, b, a / b }'
}

"$netvane" status --json > /dev/null  # warm caches once for both
ip -s -d addr show > /dev/null
"$netvane" --version > /dev/null
interfaces=$(ip -o link show | wc -l)
status=$(mean_ms reading "$netvane" status --json)
ip_addr=$(mean_ms listing ip -s -d addr show)
echo "namespace: $interfaces interfaces, $runs runs each"
report "netvane status --json vs ip -s -d addr show" "$status" "$ip_addr"
start_ours=$(mean_ms versions "$netvane" --version)
start_theirs=$(mean_ms versions ip -V)
report "(process start: netvane --version vs ip -V)" "$start_ours" "$start_theirs"

for i in $(seq 1 1000); do sleep 100000 & pids+=($!); done
for i in $(seq 0 9); do
  python3 -c '
import fcntl, os, signal, struct, sys
fd = os.open("/dev/net/tun", os.O_RDWR)
fcntl.ioctl(fd, 0x400454CA, struct.pack("16sH", sys.argv[1].encode(), 0x0001 | 0x1000))
signal.pause()' "nvtun$i" &
  pids+=($!)
done
for _ in $(seq 1 100); do
  [[ $(ip -o link show type tun 2>/dev/null | wc -l) -ge 10 ]] && break
  sleep 0.1
done
owners=$("$netvane" tunnels --json | grep -c '"pid"' || true)
processes=(/proc/[0-9]*)
echo "processes: ${#processes[@]}, tunnel owners found: $owners"
tunnels=$(mean_ms owners "$netvane" tunnels --json)
tuntap=$(mean_ms tuntaps ip -d tuntap show)
report "netvane tunnels --json vs ip -d tuntap show" "$tunnels" "$tuntap"

echo
"$bench" --benchmark_min_time=0.5
