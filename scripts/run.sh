#!/usr/bin/env bash
# Builds netvane and runs it; with no arguments, the main job.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target netvane >/dev/null
netvane=build/default/tools/netvane/netvane
if (($# == 0)); then
  set -- plist show "build/default/tools/netvane/netvane.Info.plist"
fi
exec "$netvane" "$@"
