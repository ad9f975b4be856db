#!/usr/bin/env bash
# The build types besides the default preset's (Release, which CI tests
# fully), with warnings as errors, as a packager would build them: the
# `release` preset (shared runtime, as a distribution links it) with its unit
# tests and the install and Debian package checks; with --all, also Debug,
# RelWithDebInfo and MinSizeRel with GCC and every build type with Clang 16,
# which only have to build (no tests, no benchmarks). CI leaves this script
# out to stay within its time.
set -euo pipefail
cd "$(dirname "$0")/.."

all=false
case ${1:-} in
    --all) all=true ;;
    "") ;;
    -h|--help) sed -n '2,8p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
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
    local dir
    dir="build/$compiler-$(tr '[:upper:]' '[:lower:]' <<<"$type")"
    echo "=== $type with $compiler: build (no tests, no benchmarks)"
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$type" -DCMAKE_C_COMPILER="$compiler" -DCMAKE_CXX_COMPILER="$cxx" \
        -DNETVANE_WARNINGS_AS_ERRORS=ON -DNETVANE_BUILD_TESTS=OFF -DNETVANE_BUILD_BENCHMARKS=OFF >/dev/null
    cmake --build "$dir"
}
for type in Debug RelWithDebInfo MinSizeRel; do build_only gcc g++ "$type"; done
for type in Debug Release RelWithDebInfo MinSizeRel; do build_only clang-16 clang++-16 "$type"; done
