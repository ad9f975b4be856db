#!/usr/bin/env bash
# Cross-builds netvane-admind and netvane for macOS 14 on Linux, for arm64 and
# x86_64, then makes universal binaries. It needs a macOS sysroot: the SDK's
# headers and .tbd link stubs, assembled outside the repository from public
# SDK snapshots and never committed.
#
# usage: scripts/build-macos.sh [SYSROOT]
#   SYSROOT defaults to $MACSDK, else /tmp/macsdk.
# Exit status: 0 built, 1 a build failed, 2 no sysroot or no cross tools.
# The programs cannot run here: the proof is a link with every symbol
# resolved, into Mach-O executables.
set -euo pipefail
cd "$(dirname "$0")/.."

if [[ ${1:-} == -h || ${1:-} == --help ]]; then
  sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"
  exit 0
fi
sysroot=${1:-${MACSDK:-/tmp/macsdk}}
if [[ ! -d $sysroot/usr/include || ! -d $sysroot/System/Library/Frameworks ]]; then
  echo "build-macos: no macOS sysroot at $sysroot (pass its path, or set MACSDK)" >&2
  exit 2
fi
sysroot=$(cd "$sysroot" && pwd)
lipo=$(command -v llvm-lipo-16 || command -v llvm-lipo-14 || command -v llvm-lipo || true)
if [[ -z $lipo ]] || ! command -v clang++-16 >/dev/null; then
  echo "build-macos: needs clang-16, lld and llvm (scripts/install-deps.sh installs them)" >&2
  exit 2
fi

programs=(daemon/netvane-admind tools/netvane/netvane)
for arch in arm64 x86_64; do
  dir=build/macos-$arch
  echo "=== macOS $arch: configure and build in $dir"
  # Fresh each time, so that a changed toolchain file or sysroot takes effect.
  cmake --fresh -S . -B "$dir" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/macos-$arch.cmake" \
    -DCMAKE_OSX_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=Release \
    -DNETVANE_WARNINGS_AS_ERRORS=ON \
    -DNETVANE_BUILD_TESTS=OFF -DNETVANE_BUILD_BENCHMARKS=OFF -DNETVANE_BUILD_FUZZERS=OFF >/dev/null
  cmake --build "$dir" --target netvane-admind netvane
done

universal=build/macos-universal
mkdir -p "$universal"
echo "=== Mach-O programs"
for program in "${programs[@]}"; do
  name=$(basename "$program")
  "$lipo" -create -output "$universal/$name" "build/macos-arm64/$program" "build/macos-x86_64/$program"
  for built in "build/macos-arm64/$program" "build/macos-x86_64/$program" "$universal/$name"; do
    echo "$built: $("$lipo" -archs "$built" | xargs)"
  done
done
echo "launchd job: build/macos-arm64/daemon/com.tarnwick.Netvane.admin.plist"
