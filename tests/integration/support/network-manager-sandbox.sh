#!/usr/bin/env bash
# Runs a real NetworkManager for tests and benchmarks, on the bus named by
# DBUS_SYSTEM_BUS_ADDRESS, managing the interfaces of the caller's network
# namespace (or of a new one). It lives in a mount and UTS namespace of its
# own with empty tmpfs over every place it writes, so nothing it does reaches
# the host; its profiles vanish with it.
#
#   network-manager-sandbox.sh WORKDIR [--new-network-namespace] [--veth NAME]... [--quiet]
#
# WORKDIR receives NetworkManager.conf. --veth makes NAME with a peer
# "NAME-peer" that NetworkManager leaves alone. The process becomes
# NetworkManager itself (no fork), so its pid is the one to stop. Needs root.
set -euo pipefail

work=${1:?usage: $0 WORKDIR [--new-network-namespace] [--veth NAME]... [--quiet]}
shift
if [[ ${NETVANE_NM_SANDBOX:-} != 1 ]]; then
  export NETVANE_NM_SANDBOX=1
  namespaces=(-m --uts)
  for arg in "$@"; do [[ $arg == --new-network-namespace ]] && namespaces+=(-n); done
  exec unshare "${namespaces[@]}" --propagation private "$0" "$work" "$@"
fi

veths=() debug=(--debug)
while (($#)); do
  case $1 in
    --new-network-namespace) ;;
    --veth) veths+=("$2"); shift ;;
    --quiet) debug=() ;;
    *) echo "$0: unknown argument $1" >&2; exit 2 ;;
  esac
  shift
done

# This namespace's own sysfs, read-only: without udev, a writable /sys makes
# NetworkManager wait for device initialisation that never comes. Where the
# caller already mounted the namespace's sysfs, that mount is made read-only.
mount -t sysfs -o ro sysfs /sys 2>/dev/null || mount -o remount,bind,ro /sys
for dir in /run /var/lib/NetworkManager /etc/NetworkManager; do
  mount -t tmpfs -o mode=0755 tmpfs "$dir"
done
ip link set lo up
for name in "${veths[@]}"; do
  ip link add "$name" type veth peer name "$name-peer"
  ip link set "$name-peer" up
done

conf="$work/NetworkManager.conf"
cat > "$conf" <<'CONF'
[main]
plugins=keyfile
auth-polkit=false
no-auto-default=*
dns=none
rc-manager=unmanaged
systemd-resolved=false
hostname-mode=none
dhcp=internal
[keyfile]
unmanaged-devices=interface-name:lo;interface-name:*-peer
[connectivity]
enabled=false
CONF
exec NetworkManager --no-daemon --config="$conf" "${debug[@]}"
