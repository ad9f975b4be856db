#!/usr/bin/env python3
"""Runs shellcheck (with sourced files followed) over every shell script of a
source tree: files named *.sh or *.bash, and files whose first line starts a
POSIX shell or bash. zsh and fish scripts are left out: shellcheck reads
neither. Exit status 0 clean, 1 a finding (printed), 77 no shellcheck.

usage: shellcheck_test.py SOURCE_DIR
"""
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

SHEBANG = re.compile(rb"^#!\s*\S*/(?:env\s+)?(?:sh|bash|dash)\b")
# What a build or a tool leaves in a tree that is not ours to check.
SKIPPED_DIRS = {".git", "build", "__pycache__"}


def tracked_files(source):
    # Tracked files and new ones not yet added, as git ignores build trees.
    listed = subprocess.run(["git", "-C", source, "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                            capture_output=True)
    if listed.returncode == 0:
        return [source / name for name in listed.stdout.decode().split("\0") if name]
    # Not a checkout (a source archive): every file outside build trees.
    return [path for path in source.rglob("*")
            if path.is_file() and not SKIPPED_DIRS.intersection(path.relative_to(source).parts)]


def is_shell_script(path):
    if path.suffix in (".sh", ".bash"):
        return True
    try:
        with open(path, "rb") as file:
            return bool(SHEBANG.match(file.readline(200)))
    except OSError:
        return False


def main():
    source = Path(sys.argv[1]).resolve()
    if not shutil.which("shellcheck"):
        print("shellcheck_test: SKIPPED: shellcheck is not installed (scripts/install-deps.sh installs it)")
        return 77
    scripts = sorted(str(path.relative_to(source)) for path in tracked_files(source)
                     if path.is_file() and is_shell_script(path))
    # The search must find the scripts we know of, and shellcheck must speak
    # up on a known fault, or a clean run proves nothing.
    for known in ("scripts/test.sh", "packaging/debian/postinst", "packaging/macos/common.sh"):
        if known not in scripts:
            print(f"shellcheck_test: the search missed {known}; it found {scripts}")
            return 1
    with tempfile.NamedTemporaryFile("w", suffix=".sh") as faulty:
        faulty.write("#!/bin/sh\nrm -rf $1/*\n")
        faulty.flush()
        if subprocess.run(["shellcheck", faulty.name], capture_output=True).returncode == 0:
            print("shellcheck_test: shellcheck passed an unquoted expansion")
            return 1

    result = subprocess.run(["shellcheck", "-x", *scripts], cwd=source, capture_output=True, text=True)
    print(f"shellcheck_test: {len(scripts)} scripts checked")
    if result.returncode != 0:
        print(result.stdout + result.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
