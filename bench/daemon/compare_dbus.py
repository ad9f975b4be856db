#!/usr/bin/env python3
"""Daemon round trips beside D-Bus round trips, side by side, with the targets.

usage: compare_dbus.py DAEMON_BENCH_BINARY [REPETITIONS]

Runs the benchmark binary with repetitions in random interleaving, so that
the load of a shared machine falls on both sides alike, and prints the
medians: mean round trip per client, calls per second of all clients, and
failed calls. Targets: our round trip at most half of the D-Bus one at every
client count, and no failed call with 128 clients.
"""
import json
import subprocess
import sys

CLIENTS = (1, 16, 128)
SIDES = (("ours", "BM_StatusOverDaemonSocket"), ("D-Bus", "BM_StatusOverDBus"))


def run(binary, repetitions):
    output = subprocess.run(
        [binary, "--benchmark_format=json", f"--benchmark_repetitions={repetitions}",
         "--benchmark_enable_random_interleaving=true", "--benchmark_report_aggregates_only=true"],
        check=True, capture_output=True, text=True, timeout=900).stdout
    medians, errors = {}, {}
    for row in json.loads(output)["benchmarks"]:
        name = row["run_name"]
        if row.get("error_occurred"):
            sys.exit(f"{name}: {row.get('error_message')}")
        if row.get("aggregate_name") == "median":
            medians[name] = row
        if row.get("aggregate_name") == "mean":
            errors[name] = row["errors"] * repetitions  # the mean of per-run sums
    return medians, errors


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    repetitions = int(sys.argv[2]) if len(sys.argv) == 3 else 5
    medians, errors = run(sys.argv[1], repetitions)

    print(f"medians of {repetitions} interleaved runs")
    print(f"{'clients':>7}  {'side':<5}  {'round trip us':>13}  {'calls/s':>9}  {'failed':>6}")
    worst_ratio, failed_at_128 = 0.0, 0
    for clients in CLIENTS:
        latency = {}
        for side, benchmark in SIDES:
            name = f"{benchmark}/real_time/threads:{clients}"
            row = medians[name]
            latency[side] = row["latency_us"]
            failed = round(errors[name])
            if clients == 128 and side == "ours":
                failed_at_128 = failed
            print(f"{clients:>7}  {side:<5}  {row['latency_us']:>13.1f}  {row['items_per_second']:>9.0f}  {failed:>6}")
        ratio = latency["ours"] / latency["D-Bus"]
        worst_ratio = max(worst_ratio, ratio)
        print(f"{'':>7}  ours / D-Bus = {ratio:.2f}")
    print(f"target round trip <= 0.5 x D-Bus: {'met' if worst_ratio <= 0.5 else 'missed'} (worst {worst_ratio:.2f})")
    print(f"target 128 clients without an error: {'met' if failed_at_128 == 0 else 'missed'} ({failed_at_128} failed)")


if __name__ == "__main__":
    main()
