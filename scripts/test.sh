#!/usr/bin/env bash
# Builds and runs every test: the GCC Release build with every test and the
# install and package checks, Clang 16 AddressSanitizer +
# UndefinedBehaviorSanitizer build, the concurrency tests under Clang 16
# ThreadSanitizer, and a short smoke run of every fuzz target.
# `scripts/check-build-types.sh [--all]` builds the other build types.
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

