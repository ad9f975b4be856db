#!/usr/bin/env bash
# Builds and runs every test: GCC build, Clang 16 AddressSanitizer +
# UndefinedBehaviorSanitizer build, the concurrency tests under Clang 16
# ThreadSanitizer, a short smoke run of every fuzz target, then a Release
# build with the install and package checks (`scripts/check-build-types.sh
# --all` builds every other build type with GCC and Clang too).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh

for preset in default asan tsan; do
  echo "=== $preset: build"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  echo "=== $preset: test"
  ctest --preset "$preset"
done

echo "=== fuzz smoke"
scripts/fuzz-smoke.sh build/asan

scripts/check-build-types.sh
