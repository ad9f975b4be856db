#!/usr/bin/env python3
"""Runs the clang static analyzer over every translation unit of a build.

usage: run-analyzer.py COMPILE_COMMANDS [--jobs N] [--only REGEX] [--log FILE]

Each unit is analysed with the exact flags it is compiled with, so the
analyzer sees what the compiler sees (the macOS SDK's headers in a cross
build, the Linux ones otherwise). The Core Foundation and Objective-C
ownership checkers and the nullability checkers are on besides clang's
defaults. Every report is printed with its path notes.

Exit status: 0 no report, 1 at least one report, 2 a unit could not be
analysed (it does not compile as given) or bad usage.
"""
import argparse
import json
import os
import re
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

# On top of clang's defaults (core, cplusplus, deadcode, unix, security's
# defaults): retain counts and CF/Objective-C misuse, nullability contracts,
# and two C++ checks that catch half-built objects.
CHECKERS = ",".join([
    "osx",
    "nullability",
    "optin.cplusplus.UninitializedObject",
    "optin.cplusplus.VirtualCall",
])

# One analysis may take long on template-heavy units, but never for ever.
UNIT_TIMEOUT_SECONDS = 900

REPORT = re.compile(r"^(?P<where>[^ :][^:]*:\d+:\d+): warning: (?P<what>.*)$")


def analyzer_command(entry):
    """The unit's compile command turned into an analysis with text output."""
    args = entry["arguments"] if "arguments" in entry else shlex.split(entry["command"])
    kept = []
    skip = False
    for arg in args:
        if skip:
            skip = False
        elif arg in ("-o", "-MF", "-MT", "-MQ"):
            skip = True
        elif arg in ("-c", "-MD", "-MMD"):
            continue
        else:
            kept.append(arg)
    return [kept[0], "--analyze", "--analyzer-output", "text", "-Xclang", f"-analyzer-checker={CHECKERS}",
            *kept[1:]]


def analyse(entry):
    try:
        result = subprocess.run(analyzer_command(entry), cwd=entry["directory"], capture_output=True, text=True,
                                timeout=UNIT_TIMEOUT_SECONDS)
    except subprocess.TimeoutExpired:
        return entry["file"], 124, f"analysis took longer than {UNIT_TIMEOUT_SECONDS} s\n"
    return entry["file"], result.returncode, result.stderr


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("database", type=Path, help="compile_commands.json of a configured build")
    parser.add_argument("--jobs", type=int, default=2, help="units analysed at once (default 2)")
    parser.add_argument("--only", help="analyse only the units whose path matches this regular expression")
    parser.add_argument("--log", type=Path, help="also write the analyzer's whole output to this file")
    options = parser.parse_args()

    try:
        entries = json.loads(options.database.read_text())
    except (OSError, ValueError) as error:
        print(f"run-analyzer: cannot read {options.database}: {error}", file=sys.stderr)
        return 2
    if options.only:
        entries = [entry for entry in entries if re.search(options.only, entry["file"])]
    if not entries:
        print("run-analyzer: no translation unit to analyse", file=sys.stderr)
        return 2

    reports = []
    failed = []
    log = []
    with ThreadPoolExecutor(max_workers=max(1, options.jobs)) as pool:
        for done, (file, status, output) in enumerate(pool.map(analyse, entries), 1):
            print(f"[{done}/{len(entries)}] {file}", flush=True)
            found = [line for line in output.splitlines() if REPORT.match(line)]
            if status != 0:
                failed.append(file)
                print(f"--- {file}: not analysed (exit {status})\n{output}", end="", flush=True)
            elif found:
                reports.extend(found)
                print(f"--- {file}\n{output}", end="", flush=True)
            log.append(output)
    if options.log:
        options.log.write_text("".join(log))

    # A report in a header comes once from every unit that reaches it.
    distinct = list(dict.fromkeys(reports))
    root = os.path.commonpath([entry["file"] for entry in entries])
    print(f"run-analyzer: {len(entries)} units under {root}: {len(distinct)} reports, {len(failed)} not analysed")
    for line in distinct:
        print(f"  {line}")
    if failed:
        return 2
    return 1 if reports else 0


if __name__ == "__main__":
    sys.exit(main())
