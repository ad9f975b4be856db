#!/usr/bin/env bash
# Cross-builds netvane-admind, netvane and netvane-control for macOS 14 on
# Linux, for arm64 and x86_64; stages the macOS install with universal
# programs in build/macos-stage (the runtime component as `cmake --install`
# lays it out: what packaging/macos/sign.sh signs and install.sh installs on
# a Mac); and checks the stage, the programs and the scripts
# (tests/packaging/macos/check_stage.py). It needs a macOS sysroot: the SDK's
# headers and .tbd link stubs, assembled outside the repository from public
# SDK snapshots and never committed.
#
# usage: scripts/build-macos.sh [--team TEAM] [--analyze] [SYSROOT]
#   --team TEAM  the developer team the programs are built for: their
#                Info.plists' NVTeamID, hence the daemon's service names and
#                the requirements it sets (default $NETVANE_TEAM_ID, else
#                TEAMID0000, which no signing identity has)
#   --analyze    instead of building, run the clang static analyzer over
#                every unit of the arm64 build, Core Foundation and
#                Objective-C ownership checkers on (scripts/run-analyzer.py)
#   SYSROOT defaults to $MACSDK, else /tmp/macsdk.
# Exit status: 0 built and checked (or analysed without a report), 1 a build,
# a check or the analysis failed, 2 no sysroot, no cross tools or bad usage.
# The programs cannot run here: the proof is a link with every symbol
# resolved, into Mach-O programs with the right load commands.
set -euo pipefail
cd "$(dirname "$0")/.."

team=${NETVANE_TEAM_ID:-TEAMID0000} analyze=false sysroot=""
while (($#)); do
  case $1 in
    -h | --help) sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; exit 0 ;;
    --team) (($# >= 2)) || { echo "build-macos: --team needs a value" >&2; exit 2; }; team=$2; shift 2 ;;
    --analyze) analyze=true; shift ;;
    -*) echo "build-macos: unknown option $1 (see --help)" >&2; exit 2 ;;
    *) sysroot=$1; shift ;;
  esac
done
# The team is pasted into requirement texts unescaped: only what Apple issues.
if ! [[ $team =~ ^[A-Z0-9]{10}$ ]]; then
  echo "build-macos: a team identifier is ten capital letters and digits, not '$team'" >&2
  exit 2
fi
sysroot=${sysroot:-${MACSDK:-/tmp/macsdk}}
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

configure() {
  # Fresh each time, so that a changed toolchain file or sysroot takes effect.
  cmake --fresh -S . -B "build/macos-$1" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchains/macos-$1.cmake" \
    -DCMAKE_OSX_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=Release \
    -DNETVANE_WARNINGS_AS_ERRORS=ON -DNETVANE_TEAM_ID="$team" \
    -DNETVANE_BUILD_TESTS=OFF -DNETVANE_BUILD_BENCHMARKS=OFF -DNETVANE_BUILD_FUZZERS=OFF >/dev/null
}

if $analyze; then
  echo "=== macOS arm64: configure build/macos-arm64 for the analyzer"
  configure arm64
  echo "=== macOS arm64: static analysis"
  exec python3 scripts/run-analyzer.py build/macos-arm64/compile_commands.json \
    --log build/macos-arm64/analyzer.log
fi

for arch in arm64 x86_64; do
  echo "=== macOS $arch: configure and build in build/macos-$arch (team $team)"
  configure "$arch"
  cmake --build "build/macos-$arch" --target netvane-admind netvane netvane-control
  rm -rf "build/macos-stage-$arch"
  DESTDIR="$PWD/build/macos-stage-$arch" cmake --install "build/macos-$arch" --component runtime >/dev/null
done

# One stage, whose programs carry both architectures. Rewriting each staged
# program in place keeps the mode the install gave it, which is checked.
# shellcheck source=packaging/macos/common.sh
. packaging/macos/common.sh
stage=build/macos-stage
rm -rf "$stage"
mv build/macos-stage-arm64 "$stage"
nv_read_manifest "$stage$NV_MANIFEST"
echo "=== Mach-O programs in $stage"
for ((i = 0; i < ${#nv_paths[@]}; i++)); do
  [[ ${nv_ids[i]} == - ]] && continue
  program=$stage${nv_paths[i]}
  "$lipo" -create -output "$stage.fat" "$program" "build/macos-stage-x86_64${nv_paths[i]}"
  cat "$stage.fat" >"$program"
  rm "$stage.fat"
  echo "${nv_paths[i]}: $("$lipo" -archs "$program" | xargs), to be signed as ${nv_ids[i]}"
done
rm -rf build/macos-stage-x86_64

echo "=== macOS stage checks"
checks=(--stage "$stage" --build build/macos-arm64 --team "$team")
# Our own plist codec reads the job and the rule too where a Linux build of
# the CLI is at hand (CI builds one first).
if [[ -x build/default/tools/netvane/netvane ]]; then
  checks+=(--plist-reader build/default/tools/netvane/netvane)
fi
python3 tests/packaging/macos/check_stage.py "${checks[@]}"
