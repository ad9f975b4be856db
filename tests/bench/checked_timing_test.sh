#!/usr/bin/env bash
# The whole-process comparisons never time a failing command as a fast one.
#
#   checked_timing_test.sh              the timing helper alone
#   checked_timing_test.sh BUILD_DIR    and the comparisons with iproute2 and
#                                       curl, run with a netvane that answers
#                                       its first two calls and then crashes
#                                       (needs root, as they do; 77 = skipped)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
bench=$here/../../bench
# shellcheck source-path=SCRIPTDIR source=../../bench/checked_timing.sh
source "$bench/checked_timing.sh"

fail() { echo "FAIL: $*" >&2; exit 1; }
holds_ok() { grep -q ok "$1"; }

runs=3
ms=$(mean_ms holds_ok echo ok) || fail "a good command was refused"
[[ $ms =~ ^[0-9]+\.[0-9]{2}$ ]] || fail "no time in milliseconds: $ms"
if errors=$(mean_ms holds_ok false 2>&1); then fail "a failing command was timed: $errors"; fi
[[ $errors == *"failed with status 1 on run 1: false"* ]] || fail "no reason given: $errors"
if errors=$(mean_ms holds_ok echo nothing 2>&1); then fail "a wrong output was timed: $errors"; fi
[[ $errors == *"unexpected output from: echo nothing"* ]] || fail "no reason given: $errors"
# A command that fails only on a later run.
count=$(mktemp)
trap 'rm -f "$count"' EXIT
later() { local n; n=$(($(cat "$count") + 1)); echo "$n" > "$count"; echo ok; ((n < 2)); }
echo 0 > "$count"
if errors=$(mean_ms holds_ok later 2>&1); then fail "a later failure was timed: $errors"; fi
[[ $errors == *"on run 2"* ]] || fail "the failing run is not named: $errors"
# Under set -e, a plain assignment stops the caller (a shell of its own: an
# `if` would switch set -e off).
went=$(bash -c 'set -e; source "$1"; runs=1; x=$(mean_ms true false 2>/dev/null); echo "went on with $x"' \
  _ "$bench/checked_timing.sh") || true
[[ -z $went ]] || fail "set -e did not stop the caller: $went"
echo "timing helper: ok"

(($#)) || exit 0
build=$(cd "$1" && pwd)
if [[ $(id -u) -ne 0 ]]; then
  echo "skipped: the comparisons need root for their namespaces"
  exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work" "$count"' EXIT
# A build tree whose netvane answers twice, then crashes with SIGSEGV.
mkdir -p "$work/build/tools/netvane" "$work/build/bench/interfaces" "$work/build/bench/publicip"
cat > "$work/build/tools/netvane/netvane" <<SCRIPT
#!/bin/sh
n=\$(cat "$work/calls" 2>/dev/null || echo 0)
echo \$((n + 1)) > "$work/calls"
[ "\$n" -lt 2 ] || kill -SEGV \$\$
exec "$build/tools/netvane/netvane" "\$@"
SCRIPT
chmod +x "$work/build/tools/netvane/netvane"
ln -s "$build/bench/interfaces/interfaces_bench" "$work/build/bench/interfaces/"
ln -s "$build/bench/publicip/publicip_echo_server" "$build/bench/publicip/publicip_bare_lookup" \
  "$work/build/bench/publicip/"

for script in interfaces/compare_with_iproute2.sh publicip/compare_with_curl.sh; do
  rm -f "$work/calls"
  if output=$(timeout 120 "$bench/$script" "$work/build" 3 2>&1); then
    fail "$script timed a crashing netvane: $output"
  fi
  [[ $output == *"failed with status 139"* ]] || fail "$script did not say why it stopped: $output"
  echo "$script: stopped at the crash"
done
