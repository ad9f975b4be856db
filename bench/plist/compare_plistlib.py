#!/usr/bin/env python3
"""Our plist codec beside Python's plistlib on the same documents, in one run.

usage: compare_plistlib.py PLIST_BENCH_BINARY
Prints, per document and direction, our time, plistlib's time and the speed-up.
"""
import json
import os
import plistlib
import subprocess
import sys
import tempfile
import timeit

bench = sys.argv[1]


def best(fn, budget=2.0):
    # Best of several repetitions, each at least ~0.2 s or one call.
    once = timeit.timeit(fn, number=1)
    number = max(1, int(0.2 / max(once, 1e-9)))
    repeats = max(3, min(20, int(budget / max(once * number, 1e-9))))
    return min(timeit.repeat(fn, number=number, repeat=repeats)) / number


def main():
    with tempfile.TemporaryDirectory() as tmp:
        subprocess.run([bench, "--dump-documents", tmp], check=True)
        ours = json.loads(subprocess.run([bench, "--benchmark_format=json", "--benchmark_min_time=0.5"],
                                         check=True, capture_output=True).stdout)
        ms = {b["name"]: b["real_time"] for b in ours["benchmarks"]}
        print(f"{'document':<16}{'direction':<16}{'netvane ms':>12}{'plistlib ms':>13}{'speed-up':>10}")
        for fmt_name, fmt in (("binary", plistlib.FMT_BINARY), ("xml", plistlib.FMT_XML)):
            for file in sorted(os.listdir(tmp)):
                name = file.removesuffix(".bplist")
                if f"{fmt_name}_decode/{name}" not in ms:
                    continue
                with open(os.path.join(tmp, file), "rb") as f:
                    value = plistlib.load(f)
                data = plistlib.dumps(value, fmt=fmt)
                py_encode = best(lambda: plistlib.dumps(value, fmt=fmt)) * 1000
                py_decode = best(lambda: plistlib.loads(data)) * 1000
                for direction, py in (("encode", py_encode), ("decode", py_decode)):
                    mine = ms[f"{fmt_name}_{direction}/{name}"]
                    print(f"{name:<16}{fmt_name + ' ' + direction:<16}{mine:>12.3f}{py:>13.3f}{py / mine:>9.1f}x")
        for floor_name in ("copy_floor", "fresh_copy_floor", "warm_copy_floor"):
            floor = ms[f"{floor_name}/blobs_50MB"]
            print(f"{floor_name} for blobs_50MB: {floor:.3f} ms; encode {ms['binary_encode/blobs_50MB'] / floor:.2f}x, "
                  f"encode into a reused buffer {ms['binary_encode_reused/blobs_50MB'] / floor:.2f}x, "
                  f"decode {ms['binary_decode/blobs_50MB'] / floor:.2f}x of it")


if __name__ == "__main__":
    main()
