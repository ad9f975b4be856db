#!/usr/bin/env bash
# The build types besides the presets' own, with warnings as errors, as a
# packager would build them. Always: Release with GCC, fully (its unit tests,
# then the install and Debian package checks on it). With --all, also Debug
# and MinSizeRel with GCC and every build type with Clang 16, which only have
# to build (no tests, no benchmarks); CI leaves those out to stay within its
# time. RelWithDebInfo is the default preset.
set -euo pipefail
cd "$(dirname "$0")/.."

all=false
case ${1:-} in
    --all) all=true ;;
    "") ;;
    -h|--help) sed -n '2,7p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "usage: $0 [--all]" >&2; exit 2 ;;
esac

echo "=== release: build"
cmake --preset release >/dev/null
cmake --build --preset release
echo "=== release: unit, install and package tests"
ctest --preset release

$all || exit 0
build_only() {
    local compiler=$1 cxx=$2 type=$3
    local dir="build/$compiler-$(tr '[:upper:]' '[:lower:]' <<<"$type")"
    echo "=== $type with $compiler: build (no tests, no benchmarks)"
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$type" -DCMAKE_C_COMPILER="$compiler" -DCMAKE_CXX_COMPILER="$cxx" \
        -DNETVANE_WARNINGS_AS_ERRORS=ON -DNETVANE_BUILD_TESTS=OFF -DNETVANE_BUILD_BENCHMARKS=OFF >/dev/null
    cmake --build "$dir"
}
for type in Debug MinSizeRel; do build_only gcc g++ "$type"; done
for type in Debug Release RelWithDebInfo MinSizeRel; do build_only clang-16 clang++-16 "$type"; done
