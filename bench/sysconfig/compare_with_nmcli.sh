#!/usr/bin/env bash
# Whole-process comparison with NetworkManager's own client, in a private
# network namespace with a private system bus and a NetworkManager holding
# 100 saved profiles:
# - `netvane services --json` beside `nmcli -t connection show` plus
#   `ip route get` for the two primaries (what it takes to learn the same);
# then the in-process benchmark (sysconfig_bench: one reading, and the time
# from a netlink change to the watcher's handler) in the same namespace.
#
#   bench/sysconfig/compare_with_nmcli.sh BUILD_DIR [RUNS]
#
# Needs root, NetworkManager and dbus-daemon. The script re-runs itself under
# `unshare -n -m`; NetworkManager runs in the sandbox the integration tests
# use, so nothing reaches the host. Everything it starts is stopped on exit.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=../checked_timing.sh
source "$(dirname "$0")/../checked_timing.sh"

build=${1:?usage: $0 BUILD_DIR [RUNS]}
runs=${2:-30}
build=$(cd "$build" && pwd)
here=$(cd "$(dirname "$0")" && pwd)
support="$here/../../tests/integration/support"
sandbox="$support/network-manager-sandbox.sh"
netvane="$build/tools/netvane/netvane"
bench="$build/bench/sysconfig/sysconfig_bench"
for tool in "$netvane" "$bench"; do
  [[ -x $tool ]] || { echo "missing $tool: build the netvane and sysconfig_bench targets" >&2; exit 1; }
done

if [[ ${NETVANE_BENCH_IN_NAMESPACE:-} != 1 ]]; then
  export NETVANE_BENCH_IN_NAMESPACE=1
  exec unshare -n -m "$0" "$@"
fi

work=$(mktemp -d /tmp/netvane-bench-nm-XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

mount --make-rprivate /
mount -t sysfs sysfs /sys
ip link set lo up

"$support/private-system-bus.sh" "$work/bus" > "$work/address" 2> "$work/bus.log" &
pids+=($!)
for _ in $(seq 1 100); do [[ -s $work/address ]] && break; sleep 0.05; done
DBUS_SYSTEM_BUS_ADDRESS=$(head -1 "$work/address")
export DBUS_SYSTEM_BUS_ADDRESS

mkdir "$work/nm"
"$sandbox" "$work/nm" --quiet --veth nv0 --veth nv1 --veth nv2 --veth nv3 > "$work/nm/log" 2>&1 &
pids+=($!)
started() {
  dbus-send --system --print-reply --dest=org.freedesktop.NetworkManager /org/freedesktop/NetworkManager \
    org.freedesktop.DBus.Properties.Get string:org.freedesktop.NetworkManager string:Startup 2>/dev/null |
    grep -q 'boolean false'
}
for _ in $(seq 1 200); do started && break; sleep 0.1; done
started || { echo "NetworkManager did not start:" >&2; tail "$work/nm/log" >&2; exit 1; }

# The world's routes go out through the peers, which NetworkManager leaves alone.
ip addr add 10.60.0.1/24 dev nv0-peer
ip -6 addr add fd60::1/64 dev nv0-peer nodad
ip route add default via 10.60.0.254
ip -6 route add default via fd60::fe

# The inner shell expands its own $1, the profile's number.
# shellcheck disable=SC2016
seq 1 100 | xargs -P 4 -I{} sh -c 'nmcli connection add type ethernet ifname nv$(($1 % 4)) con-name "Profile $1" \
  autoconnect no connection.autoconnect-priority $(($1 % 10)) ipv4.method disabled ipv6.method ignore > /dev/null' sh {}
services=$("$netvane" services --json | grep -c '"id"' || true)
echo "namespace: $(nmcli -t connection show | wc -l) profiles, $services services read, $runs runs each"

peer() {
  nmcli -t connection show &&
    ip route get 203.0.113.1 &&
    ip -6 route get 2001:db8::1
}
# What each timed command must print: every profile, and the primary
# interface that the peers' routes make; or the program's name.
services() { [[ $(grep -c '"id"' "$1") -ge 100 ]] && grep -q '"primaryIPv4Interface": "nv0' "$1"; }
profiles() { [[ $(grep -c '^Profile ' "$1") -eq 100 ]] && grep -q 'dev nv0' "$1"; }
versions() { grep -qE '^netvane |^nmcli ' "$1"; }
report() {  # label ours theirs
  awk -v l="$1" -v a="$2" -v b="$3" 'BEGIN { printf "%-64s %8.2f ms  vs %8.2f ms  ratio %.2fx\n", l, a, b, a / b }'
}

"$netvane" services --json > /dev/null  # warm caches once for both
peer > /dev/null
ours=$(mean_ms services "$netvane" services --json)
theirs=$(mean_ms profiles peer)
report "netvane services --json vs nmcli -t connection show + 2x ip route get" "$ours" "$theirs"
start_ours=$(mean_ms versions "$netvane" --version)
start_theirs=$(mean_ms versions nmcli --version)
report "(process start: netvane --version vs nmcli --version)" "$start_ours" "$start_theirs"

echo
"$bench" --benchmark_min_time=1
