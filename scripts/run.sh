#!/usr/bin/env bash
# Builds netvane and runs it; with no arguments, the main job: `netvane status`,
# a full reading of this machine's interfaces and tunnel owners.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target netvane >/dev/null
netvane=build/default/tools/netvane/netvane
(($# == 0)) && set -- status
exec "$netvane" "$@"
