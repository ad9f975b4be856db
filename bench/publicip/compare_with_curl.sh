#!/usr/bin/env bash
# Whole-process comparison: `netvane public-ip` against `curl -4` and `curl -6`
# started in parallel (what a user would type to learn both addresses), both
# asking a local dual-stack echo service, over plain HTTP and over TLS.
#
#   bench/publicip/compare_with_curl.sh BUILD_DIR [RUNS]
#
# Needs root for a private mount namespace: the name echo.test must resolve to
# both 127.0.0.1 and ::1, so the script runs itself under `unshare -m` with its
# own hosts file bound over /etc/hosts. Nothing outside that namespace changes.
set -euo pipefail

build=${1:?usage: $0 BUILD_DIR [RUNS]}
runs=${2:-200}
build=$(cd "$build" && pwd)
netvane="$build/tools/netvane/netvane"
server="$build/bench/publicip/publicip_echo_server"
for tool in "$netvane" "$server"; do
  [[ -x $tool ]] || { echo "missing $tool: build the netvane and publicip_echo_server targets" >&2; exit 1; }
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

now_ns() { date +%s%N; }

# Mean wall time per run in milliseconds of a shell command, after one warm-up.
measure() {
  local command=$1
  eval "$command" > /dev/null
  local start end
  start=$(now_ns)
  for ((i = 0; i < runs; i++)); do eval "$command" > /dev/null; done
  end=$(now_ns)
  awk -v ns=$((end - start)) -v n="$runs" 'BEGIN { printf "%.2f", ns / n / 1e6 }'
}

check() {
  local label=$1 output=$2
  if ! grep -q '127.0.0.1' <<< "$output" || ! grep -q '::1' <<< "$output"; then
    echo "$label did not report both addresses: $output" >&2
    exit 1
  fi
}

printf '%-6s %-28s %10s\n' scheme client "ms/run"
for scheme in http https; do
  port=$plain_port
  [[ $scheme == https ]] && port=$tls_port
  url="$scheme://echo.test:$port/ip"
  ours="'$netvane' public-ip --url '$url'"
  pair="curl -4 -s --cacert '$SSL_CERT_FILE' '$url' & curl -6 -s --cacert '$SSL_CERT_FILE' '$url' & wait"
  check netvane "$(eval "$ours")"
  check curl "$(eval "$pair")"
  printf '%-6s %-28s %10s\n' "$scheme" "netvane public-ip" "$(measure "$ours")"
  printf '%-6s %-28s %10s\n' "$scheme" "curl -4 & curl -6" "$(measure "$pair")"
done
echo "($runs runs each)"
