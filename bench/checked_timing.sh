# shellcheck shell=bash
# Timing for the whole-process comparisons, sourced by them: a run that fails
# or prints the wrong thing must never be reported as a fast one.
#
# mean_ms CHECK COMMAND...
#   Runs COMMAND $runs times and prints the mean wall time of one run in
#   milliseconds. Each run's standard output goes to a file. A run that exits
#   with a failure, or a last run whose output CHECK refuses (CHECK is a
#   command, usually a function, given that file), makes mean_ms fail with
#   the reason on standard error. Call it in a plain assignment,
#   `x=$(mean_ms ...)`, where `set -e` sees its status: as the argument of
#   another command its failure would be lost.

# shellcheck disable=SC2154  # runs is the caller's
mean_ms() {
  local check=$1 output start end run status
  shift
  output=$(mktemp)
  start=$EPOCHREALTIME
  for ((run = 0; run < runs; ++run)); do
    "$@" > "$output" 2>/dev/null && continue
    status=$?
    echo "failed with status $status on run $((run + 1)): $*" >&2
    rm -f "$output"
    return 1
  done
  end=$EPOCHREALTIME
  if ! "$check" "$output"; then
    echo "unexpected output from: $*" >&2
    head -c 400 "$output" >&2
    rm -f "$output"
    return 1
  fi
  rm -f "$output"
  awk -v s="$start" -v e="$end" -v n="$runs" 'BEGIN { printf "%.2f", (e - s) * 1000 / n }'
}
