#!/usr/bin/env bash
# A private system bus for tests and benchmarks: the bus daemon with its
# socket at SOCKET, everyone allowed everything, printing its address on the
# first line of standard output. The process becomes the bus daemon itself
# (no fork), so its pid is the one to stop.
#
#   private-system-bus.sh SOCKET
set -euo pipefail
socket=${1:?usage: $0 SOCKET}
config=$(mktemp "${TMPDIR:-/tmp}/netvane-bus-XXXXXX.conf")
cat > "$config" <<CONF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=$socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
CONF
# Read through a descriptor, so the file is gone before the daemon runs and
# nothing is left behind however it ends.
exec 3< "$config"
rm -f "$config"
exec dbus-daemon --config-file=/dev/fd/3 --nofork --print-address=1
