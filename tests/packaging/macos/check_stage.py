#!/usr/bin/env python3
"""Checks a staged macOS install (scripts/build-macos.sh makes and checks one)
as far as Linux can, since nothing of it runs here:

- the stage holds exactly the files and directories its manifest lists, each
  with the manifest's mode;
- the launchd job and the pair right's rule read back with Python's plistlib
  and, when a Linux build of the CLI is given, with our own codec, as the same
  values; the job runs the daemon from its staged path as its label, with the
  team's two Mach services; the rule asks for an administrator, with a timeout;
- every program in the manifest is universal (arm64 and x86_64); each slice's
  build-version load command names macOS with a 14.0 minimum, and its
  __TEXT,__info_plist section is byte for byte the Info.plist configured for
  it, whose identifier is the manifest's (its role's) and whose team is the
  build's;
- sign.sh --dry-run prints, for the three programs, a signing command with
  the identifier, the hardened runtime and a timestamp, and a check against
  the requirement for that identifier;
- package.sh lays out a payload equal to the stage and prints pkgbuild.

usage: check_stage.py --stage DIR --build DIR --team TEAM [--plist-reader NETVANE]
Exit status 0 when every check holds; each failure is printed.
"""
import argparse
import json
import plistlib
import stat
import sys
import tempfile
from pathlib import Path

from macos_install import (APP_ID, CONTROL_ID, DAEMON_ID, MANIFEST, PLATFORM_MACOS, SCRIPTS, macho_slices,
                           printed_commands, read_manifest, run)

JOB = "/Library/LaunchDaemons/com.tarnwick.Netvane.admin.plist"
RULE = "/Library/Application Support/Netvane/com.tarnwick.Netvane.admin.pair.plist"


class Checks:
    def __init__(self):
        self.failures = []

    def expect(self, holds, what):
        if not holds:
            self.failures.append(what)
        return holds


def stage_matches_manifest(checks, stage, entries):
    listed = {entry.path.rstrip("/"): entry for entry in entries}
    for path, entry in listed.items():
        staged = stage / path.lstrip("/")
        if not checks.expect(staged.exists() and not staged.is_symlink(), f"{path}: listed, not staged"):
            continue
        checks.expect(staged.is_dir() == entry.path.endswith("/"), f"{path}: the manifest says the other kind")
        mode = stat.S_IMODE(staged.stat().st_mode)
        checks.expect(mode == entry.mode, f"{path}: mode {mode:04o} staged, {entry.mode:04o} in the manifest")
    parents = {str(Path(path).parent) for path in listed} | {"/"}
    for staged in stage.rglob("*"):
        path = "/" + staged.relative_to(stage).as_posix()
        if staged.is_dir() and not staged.is_symlink():
            # A directory that the manifest does not own must lead to one it lists.
            checks.expect(path in listed or any(p == path or p.startswith(path + "/") for p in parents),
                          f"{path}: a staged directory that leads to nothing listed")
        else:
            checks.expect(path in listed, f"{path}: staged, but the manifest does not list it")


def plist_reads_alike(checks, path, reader):
    with open(path, "rb") as file:
        value = plistlib.load(file)
    if reader:
        ours = run([reader, "plist", "show", path, "--json"])
        checks.expect(json.loads(ours.stdout) == value, f"{path}: our codec reads {ours.stdout!r}, plistlib {value!r}")
    return value


def job_and_rule(checks, stage, entries, team, reader):
    job = plist_reads_alike(checks, stage / JOB.lstrip("/"), reader)
    daemon = [entry.path for entry in entries if entry.identifier == DAEMON_ID]
    checks.expect(job.get("Label") == DAEMON_ID, f"job label {job.get('Label')!r}")
    checks.expect([job.get("Program")] == daemon, f"job program {job.get('Program')!r}, daemon staged at {daemon}")
    services = {f"{team}.com.tarnwick.Netvane.admin": True, f"{team}.com.tarnwick.Netvane.admin-control": True}
    checks.expect(job.get("MachServices") == services, f"job services {job.get('MachServices')!r}")

    rule = plist_reads_alike(checks, stage / RULE.lstrip("/"), reader)
    checks.expect((rule.get("class"), rule.get("group")) == ("user", "admin"), f"rule {rule!r}: not administrators")
    timeout = rule.get("timeout")
    checks.expect(type(timeout) is int and 0 < timeout <= 300, f"rule timeout {timeout!r}")
    checks.expect(rule.get("shared") is False, "the rule shares the credential with other processes")


def configured_info_plists(build):
    found = {}
    for path in Path(build).rglob("*.Info.plist"):
        with open(path, "rb") as file:
            found[plistlib.load(file)["CFBundleIdentifier"]] = path.read_bytes()
    return found


def programs(checks, stage, entries, build, team):
    configured = configured_info_plists(build)
    signed = [entry for entry in entries if entry.signed]
    checks.expect(sorted(entry.identifier for entry in signed) == sorted([DAEMON_ID, APP_ID, CONTROL_ID]),
                  f"the manifest signs {[entry.identifier for entry in signed]}")
    for entry in signed:
        data = (stage / entry.path.lstrip("/")).read_bytes()
        slices = macho_slices(data)
        checks.expect(sorted(s.arch for s in slices) == ["arm64", "x86_64"],
                      f"{entry.path}: architectures {[s.arch for s in slices]}")
        expected = configured.get(entry.identifier)
        if not checks.expect(expected is not None, f"{entry.path}: no Info.plist configured for {entry.identifier}"):
            continue
        info = plistlib.loads(expected)
        checks.expect(info.get("NVTeamID") == team, f"{entry.path}: configured for team {info.get('NVTeamID')!r}")
        for piece in slices:
            where = f"{entry.path} ({piece.arch})"
            checks.expect(piece.platform == PLATFORM_MACOS and piece.minos == "14.0.0",
                          f"{where}: build version platform {piece.platform}, minimum {piece.minos}")
            embedded = piece.sections.get(("__TEXT", "__info_plist"))
            checks.expect(embedded == expected, f"{where}: the embedded Info.plist differs from the configured one")


def dry_run_signing(checks, stage, entries, team):
    identity = f"Developer ID Application: Stage Check ({team})"
    output = run(["bash", SCRIPTS / "sign.sh", "--dry-run", "--identity", identity, stage]).stdout
    commands = printed_commands(output)
    expected_signing = [["codesign", "--force", "--sign", identity, "--identifier", entry.identifier,
                         "--options", "runtime", "--timestamp", f"{stage}{entry.path}"]
                        for entry in entries if entry.signed]
    checks.expect([c for c in commands if "--sign" in c] == expected_signing, f"signing printed:\n{output}")
    verifying = [c for c in commands if "--verify" in c]
    checks.expect(len(verifying) == len(expected_signing), f"verification printed:\n{output}")
    for command, entry in zip(verifying, [entry for entry in entries if entry.signed]):
        requirement = command[command.index("-R") + 1]
        checks.expect(command[-1] == f"{stage}{entry.path}" and requirement.endswith(f'identifier "{entry.identifier}"')
                      and f'leaf[subject.OU] = "{team}"' in requirement,
                      f"{entry.path} is verified against {requirement!r}")


def package_layout(checks, stage, entries):
    with tempfile.TemporaryDirectory() as work:
        out = Path(work) / "package"
        output = run(["bash", SCRIPTS / "package.sh", stage, out]).stdout
        stage_matches_manifest(checks, out / "root", entries)
        for entry in entries:
            if not entry.path.endswith("/"):
                same = (out / "root" / entry.path.lstrip("/")).read_bytes() == (stage / entry.path.lstrip("/")).read_bytes()
                checks.expect(same, f"{entry.path}: the payload's copy differs from the stage's")
        pkgbuild = [c for c in printed_commands(output) if c and c[0] == "pkgbuild"]
        checks.expect(len(pkgbuild) == 1 and pkgbuild[0][pkgbuild[0].index("--root") + 1] == f"{out}/root",
                      f"package.sh printed:\n{output}")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--stage", type=Path, required=True)
    parser.add_argument("--build", type=Path, required=True, help="a configured macOS build (its Info.plists)")
    parser.add_argument("--team", required=True)
    parser.add_argument("--plist-reader", help="a Linux `netvane`, to read the plists with our codec")
    options = parser.parse_args()
    stage = options.stage.resolve()
    entries = read_manifest((stage / MANIFEST.lstrip("/")).read_text())

    checks = Checks()
    for check, arguments in ((stage_matches_manifest, (stage, entries)),
                             (job_and_rule, (stage, entries, options.team, options.plist_reader)),
                             (programs, (stage, entries, options.build, options.team)),
                             (dry_run_signing, (stage, entries, options.team)),
                             (package_layout, (stage, entries))):
        try:
            check(checks, *arguments)
        except (AssertionError, OSError, ValueError, KeyError) as error:
            checks.failures.append(f"{check.__name__}: {error}")
    if not options.plist_reader:
        print("check_stage: SKIPPED reading the plists with our codec: no Linux build of netvane given")
    for failure in checks.failures:
        print(f"FAILED: {failure}")
    print(f"check_stage: {len(checks.failures)} failures in {stage}")
    return 1 if checks.failures else 0


if __name__ == "__main__":
    sys.exit(main())
