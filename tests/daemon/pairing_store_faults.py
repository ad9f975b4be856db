#!/usr/bin/env python3
"""The pairing store's save under injected I/O errors (libfiu's fiu-run):
write, fsync and rename each fail once in turn. Every time the old file stays
byte for byte, no temporary file is left, and the error names the file and
the step that failed.

usage: pairing_store_faults.py HELPER
Exits 77 (skipped) when fiu-run is not installed.
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile

POINTS = {"posix/io/rw/write": "write", "posix/io/sync/fsync": "fsync", "posix/io/dir/rename": "rename"}
LEFTOVER = re.compile(r"^pairings\.plist\.[A-Za-z0-9]{6}$")


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    helper = sys.argv[1]
    if shutil.which("fiu-run") is None:
        print("SKIP: fiu-run is not installed (Debian's fiu-utils)")
        return 77
    failures = []
    directory = tempfile.mkdtemp(prefix="netvane-store-faults-")
    try:
        state = os.path.join(directory, "state")
        first = subprocess.run([helper, state], capture_output=True, text=True, timeout=30)
        if first.stdout != "ok\n":
            print(f"FAIL the first pairing without faults: {first.stdout!r} {first.stderr!r}")
            return 1
        path = os.path.join(state, "pairings.plist")
        for point, step in POINTS.items():
            with open(path, "rb") as f:
                before = f.read()
            run = subprocess.run(["fiu-run", "-x", "-c", f"enable name={point}", helper, state],
                                 capture_output=True, text=True, timeout=30)
            line = run.stdout.strip()
            with open(path, "rb") as f:
                after = f.read()
            leftovers = [name for name in os.listdir(state) if LEFTOVER.match(name)]
            for ok, what in ((line.startswith("error NSPOSIXErrorDomain "), f"the save failed with a system error"),
                             (f"save {path} ({step})" in line, f"the error names the file and the {step}"),
                             (after == before, "the old file is byte-identical"),
                             (leftovers == [], f"no temporary file is left: {leftovers}")):
                if not ok:
                    failures.append(f"{point}: {what} ({line!r}, {run.stderr.strip()!r})")
        last = subprocess.run([helper, state], capture_output=True, text=True, timeout=30)
        if last.stdout != "ok\n":
            failures.append(f"a save after the faults: {last.stdout!r}")
    finally:
        shutil.rmtree(directory, ignore_errors=True)
    for failure in failures:
        print("FAIL " + failure)
    print(f"{len(POINTS)} faults, {len(failures)} failure(s)")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
