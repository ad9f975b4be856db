#!/usr/bin/env bash
# Whole-process comparison: `netvane public-ip` against `curl -4` and `curl -6`
# started in parallel (what a user would type to learn both addresses), both
# asking a local dual-stack echo service, over plain HTTP and over TLS; beside
# them, over TLS, the floor of such a process, publicip_bare_lookup (both
# families at once, the system's TLS library linked at start, no name to
# resolve).
#
#   bench/publicip/compare_with_curl.sh BUILD_DIR [RUNS]
#
# The clients take turns in 5 rounds of RUNS/5 runs each, and each figure is
# the median of a client's 5 round means: on a shared machine the load moves
# during a run, and taking turns lets every client meet the same load.
#
# Needs root for a private mount namespace: the name echo.test must resolve to
# both 127.0.0.1 and ::1, so the script runs itself under `unshare -m` with its
# own hosts file bound over /etc/hosts. Nothing outside that namespace changes.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR source=../checked_timing.sh
source "$(dirname "$0")/../checked_timing.sh"

build=${1:?usage: $0 BUILD_DIR [RUNS]}
runs=${2:-200}
build=$(cd "$build" && pwd)
netvane="$build/tools/netvane/netvane"
server="$build/bench/publicip/publicip_echo_server"
bare_lookup="$build/bench/publicip/publicip_bare_lookup"
for tool in "$netvane" "$server" "$bare_lookup"; do
  [[ -x $tool ]] || { echo "missing $tool: build the netvane, publicip_echo_server and publicip_bare_lookup targets" >&2; exit 1; }
done
command -v curl >/dev/null || { echo "curl is not installed" >&2; exit 1; }

if [[ ${NETVANE_BENCH_IN_NAMESPACE:-} != 1 ]]; then
  export NETVANE_BENCH_IN_NAMESPACE=1
  exec unshare -m "$0" "$@"
fi

work=$(mktemp -d)
server_pids=()
cleanup() {
  for pid in "${server_pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

printf '127.0.0.1 echo.test\n::1 echo.test\n' > "$work/hosts"
mount --bind "$work/hosts" /etc/hosts

# Starts an echo server whose stdin stays open on a FIFO; sets `port`.
start_server() {
  local name=$1 keep; shift
  mkfifo "$work/$name.in"
  "$server" "$@" < "$work/$name.in" > "$work/$name.port" &
  server_pids+=($!)
  # Held open, never written, for the life of the script.
  # shellcheck disable=SC2034
  exec {keep}> "$work/$name.in"
  until [[ -s $work/$name.port ]]; do sleep 0.05; done
  port=$(head -n1 "$work/$name.port")
}

start_server plain
plain_port=$port
start_server tls --tls "$work/ca.pem" --name echo.test
tls_port=$port
export SSL_CERT_FILE="$work/ca.pem" SSL_CERT_DIR="$work/empty"
mkdir -p "$SSL_CERT_DIR"

# Both addresses, whoever asked.
both_addresses() { grep -q '127\.0\.0\.1' "$1" && grep -q '::1' "$1"; }
ours() { "$netvane" public-ip --url "$url"; }
bare() { "$bare_lookup" "$port" --tls echo.test; }
# The two curls at once; the pair fails when either does.
pair() {
  curl -4 -s --cacert "$SSL_CERT_FILE" "$url" &
  curl -6 -s --cacert "$SSL_CERT_FILE" "$url" && wait $!
}

rounds=5
total_runs=$runs
runs=$(((total_runs + rounds - 1) / rounds))  # what mean_ms runs in one round
median() { printf '%s\n' "$@" | sort -n | awk '{ v[NR] = $1 } END { printf "%.2f", v[int((NR + 1) / 2)] }'; }

printf '%-6s %-28s %10s\n' scheme client "ms/run"
for scheme in http https; do
  port=$plain_port
  [[ $scheme == https ]] && port=$tls_port
  url="$scheme://echo.test:$port/ip"
  clients=(ours pair)
  # Over TLS only: linked at start, the library costs the plain floor too.
  [[ $scheme == https ]] && clients+=(bare)
  for client in "${clients[@]}"; do "$client" > /dev/null; done  # warm caches once for all
  declare -A means=()
  for ((round = 0; round < rounds; ++round)); do
    for client in "${clients[@]}"; do
      ms=$(mean_ms both_addresses "$client")
      means[$client]+="$ms "
    done
  done
  # shellcheck disable=SC2086  # the means are words
  for client in "${clients[@]}"; do
    case $client in
      ours) label="netvane public-ip" ;;
      pair) label="curl -4 & curl -6" ;;
      bare) label="bare lookup (floor)" ;;
    esac
    printf '%-6s %-28s %10s\n' "$scheme" "$label" "$(median ${means[$client]})"
  done
  unset means
done
echo "(median of $rounds rounds of $runs runs each, taking turns)"
