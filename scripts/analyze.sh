#!/usr/bin/env bash
# Runs the clang static analyzer (clang-tools-16) over the Linux build: every
# translation unit of the libraries, the daemon and the CLI, configured with
# Clang 16 in build/analyze (tests, benchmarks and fuzzers are not analysed).
# The macOS counterpart is `scripts/build-macos.sh --analyze`.
#
# usage: scripts/analyze.sh [--only REGEX] [--jobs N]
#   --only REGEX  analyse only the files whose path matches
#   --jobs N      units analysed at once (default 2)
# Exit status: 0 no report, 1 at least one report, 2 a unit could not be
# analysed or bad usage. Every report is printed with its path.
set -euo pipefail
cd "$(dirname "$0")/.."

analyzer_args=()
while (($#)); do
  case $1 in
    -h|--help) sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; exit 0 ;;
    --only|--jobs)
      (($# >= 2)) || { echo "analyze: $1 needs a value" >&2; exit 2; }
      analyzer_args+=("$1" "$2"); shift 2 ;;
    *) echo "analyze: unknown option $1 (see --help)" >&2; exit 2 ;;
  esac
done
if ! command -v clang++-16 >/dev/null; then
  echo "analyze: needs clang-16 and clang-tools-16 (scripts/install-deps.sh installs them)" >&2
  exit 2
fi

dir=build/analyze
echo "=== Linux: configure $dir with Clang 16"
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_C_COMPILER=clang-16 -DCMAKE_CXX_COMPILER=clang++-16 -DNETVANE_WARNINGS_AS_ERRORS=ON \
  -DNETVANE_BUILD_TESTS=OFF -DNETVANE_BUILD_BENCHMARKS=OFF -DNETVANE_BUILD_FUZZERS=OFF >/dev/null
echo "=== Linux: static analysis"
python3 scripts/run-analyzer.py "$dir/compile_commands.json" --log "$dir/analyzer.log" "${analyzer_args[@]}"
