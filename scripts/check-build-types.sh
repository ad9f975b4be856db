#!/usr/bin/env bash
# The build types besides the presets' own, with GCC and warnings as errors,
# as a packager would build them: Release fully (its unit tests, then the
# install and Debian package checks on it), Debug and MinSizeRel without
# tests or benchmarks, which only have to build. RelWithDebInfo is the
# default preset.
set -euo pipefail
cd "$(dirname "$0")/.."

echo "=== release: build"
cmake --preset release >/dev/null
cmake --build --preset release
echo "=== release: unit, install and package tests"
ctest --preset release

for type in Debug MinSizeRel; do
    dir="build/$(tr '[:upper:]' '[:lower:]' <<<"$type")"
    echo "=== $type: build (no tests, no benchmarks)"
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$type" -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ \
        -DNETVANE_WARNINGS_AS_ERRORS=ON -DNETVANE_BUILD_TESTS=OFF -DNETVANE_BUILD_BENCHMARKS=OFF >/dev/null
    cmake --build "$dir"
done
