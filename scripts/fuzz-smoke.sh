#!/usr/bin/env bash
# Runs every fuzz target briefly, starting from its seed corpus; 60 s in all.
# usage: fuzz-smoke.sh BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: fuzz-smoke.sh BUILD_DIR}
mapfile -t targets < <(find "$build/fuzz" -type f -name '*_fuzz' -perm -u+x | sort)
((${#targets[@]})) || { echo "no fuzz targets in $build/fuzz"; exit 1; }
budget=$((60 / ${#targets[@]}))
for target in "${targets[@]}"; do
  name=$(basename "$target" _fuzz)
  work=$(mktemp -d)
  corpus=(); [[ -d fuzz/corpus/$name ]] && corpus=("fuzz/corpus/$name")
  echo "--- $name (${budget}s)"
  "$target" -max_total_time="$budget" -max_len=65536 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="$work/" "$work" "${corpus[@]}" 2>&1 | grep -E 'stat::number_of_executed_units|ERROR|SUMMARY' || true
  if compgen -G "$work/crash-*" >/dev/null || compgen -G "$work/leak-*" >/dev/null || compgen -G "$work/oom-*" >/dev/null || compgen -G "$work/timeout-*" >/dev/null; then
    echo "fuzz target $name found a failing input:"; ls "$work"; exit 1
  fi
  rm -rf "$work"
done
