#!/usr/bin/env python3
"""The macOS install's scripts, run here where they can only be dry: on a
stage laid out from the manifest template with stand-in programs (a Mach-O
header and the Info.plist a build embeds), they must print the commands a Mac
would run, in order, and refuse every input that would install something the
daemon or launchd would refuse. The stage of a real macOS build goes through
check_stage.py (scripts/build-macos.sh)."""
import os
import plistlib
import stat
import subprocess
import tempfile
import unittest
from pathlib import Path

from macos_install import (APP_ID, CONTROL_ID, DAEMON_ID, MANIFEST, SCRIPTS, SOURCE, printed_commands,
                           read_manifest, run)

TEAM = "ABCDE12345"
IDENTITY = f"Developer ID Application: Jane Roe ({TEAM})"
STATE = "/Library/Application Support/NetvaneAdmin"
RULE = "/Library/Application Support/Netvane/com.tarnwick.Netvane.admin.pair.plist"

MANIFEST_TEXT = (SCRIPTS / "install.manifest.in").read_text()
for name, value in {"@NETVANE_FULL_BINDIR@": "/usr/local/bin", "@NETVANE_FULL_MANDIR@": "/usr/local/share/man",
                    "@NETVANE_PREFIX@": "/usr/local", "@NETVANE_BASH_COMPLETION_DIR@": "share/bash-completion/completions",
                    "@PROJECT_VERSION@": "0.1.0"}.items():
    MANIFEST_TEXT = MANIFEST_TEXT.replace(name, value)
ENTRIES = read_manifest(MANIFEST_TEXT)
SIGNED = [entry for entry in ENTRIES if entry.signed]


def program_bytes(identifier, team=TEAM):
    """A 64-bit Mach-O header, then the Info.plist a build would embed."""
    info = (SOURCE / "packaging" / "Info.plist.in").read_text()
    for name, value in {"@NV_BUNDLE_IDENTIFIER@": identifier, "@NV_BUNDLE_NAME@": "stand-in",
                        "@NV_SHORT_VERSION@": "0.1.0", "@NV_TEAM_ID@": team}.items():
        info = info.replace(name, value)
    return bytes.fromhex("cffaedfe0c000001") + bytes(56) + info.encode() + bytes(16)


def make_stage(root):
    for entry in ENTRIES:
        path = root / entry.path.lstrip("/")
        if entry.path.endswith("/"):
            path.mkdir(parents=True, exist_ok=True)
        else:
            path.parent.mkdir(parents=True, exist_ok=True)
            source = SCRIPTS / path.name
            path.write_bytes(program_bytes(entry.identifier) if entry.signed
                             else source.read_bytes() if source.exists() else b"stand-in\n")
        path.chmod(entry.mode)
    (root / MANIFEST.lstrip("/")).write_text(MANIFEST_TEXT)
    return root


class Stage(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.TemporaryDirectory()
        self.stage = make_stage(Path(self.work.name) / "stage")

    def tearDown(self):
        self.work.cleanup()

    def script(self, name, *arguments, check=True):
        return run(["bash", SCRIPTS / name, *arguments], check=check)

    def refused(self, name, *arguments, saying):
        result = self.script(name, *arguments, check=False)
        self.assertEqual(result.returncode, 1, result.stdout + result.stderr)
        self.assertIn(saying, result.stderr)
        self.assertNotIn("codesign --force", result.stdout)
        self.assertNotIn("install -o", result.stdout)

    def staged(self, entry):
        return f"{self.stage}{entry.path}"


class Signing(Stage):
    def test_prints_a_signature_then_a_check_per_program_with_its_role(self):
        commands = printed_commands(self.script("sign.sh", "--dry-run", "--identity", IDENTITY, self.stage).stdout)
        self.assertEqual(sorted(entry.identifier for entry in SIGNED), sorted([DAEMON_ID, APP_ID, CONTROL_ID]))
        signing = [["codesign", "--force", "--sign", IDENTITY, "--identifier", entry.identifier,
                    "--options", "runtime", "--timestamp", self.staged(entry)] for entry in SIGNED]
        checking = [["codesign", "--verify", "--strict", "--verbose=2", "-R", requirement(entry.identifier),
                     self.staged(entry)] for entry in SIGNED]
        self.assertEqual(commands, signing + checking)

    def test_a_keychain_and_a_hashed_identity_reach_codesign(self):
        sha1 = "0123456789ABCDEF0123456789ABCDEF01234567"
        output = self.script("sign.sh", "--dry-run", "--identity", sha1, "--team", TEAM,
                             "--keychain", "/tmp/ci.keychain", self.stage).stdout
        for command in printed_commands(output):
            if "--force" in command:
                self.assertEqual(command[2:6], ["--sign", sha1, "--keychain", "/tmp/ci.keychain"])

    def test_refuses_what_the_daemon_would_refuse(self):
        self.refused("sign.sh", "--dry-run", "--identity", IDENTITY, "--team", "ZZZZZ12345", self.stage,
                     saying="belongs to team ABCDE12345")
        self.refused("sign.sh", "--dry-run", "--identity", f"Apple Development: Jane Roe ({TEAM})", self.stage,
                     saying="only Developer ID")
        self.refused("sign.sh", "--dry-run", "--identity", "0123456789ABCDEF0123456789ABCDEF01234567", self.stage,
                     saying="--team")

    def test_refuses_programs_built_for_another_team_or_role(self):
        control = self.stage / next(e for e in SIGNED if e.identifier == CONTROL_ID).path.lstrip("/")
        control.write_bytes(program_bytes(CONTROL_ID, team="TEAMID0000"))
        self.refused("sign.sh", "--dry-run", "--identity", IDENTITY, self.stage, saying="built for team 'TEAMID0000'")
        control.write_bytes(program_bytes(APP_ID))
        self.refused("sign.sh", "--dry-run", "--identity", IDENTITY, self.stage,
                     saying=f"embeds the identifier '{APP_ID}', not {CONTROL_ID}")
        control.write_bytes(b"#!/bin/sh\n" + program_bytes(CONTROL_ID))
        self.refused("sign.sh", "--dry-run", "--identity", IDENTITY, self.stage, saying="not a Mach-O program")

    def test_usage(self):
        self.assertEqual(self.script("sign.sh", self.stage, check=False).returncode, 2)
        self.assertIn("--identity", self.script("sign.sh", "--help").stdout)


def requirement(identifier):
    return run(["bash", "-c", f'. "{SCRIPTS}/common.sh" && nv_requirement "$0" "$1"', identifier, TEAM]).stdout.strip()


class Installing(Stage):
    def test_checks_signatures_then_stops_installs_registers_and_starts(self):
        commands = printed_commands(self.script("install.sh", "--dry-run", self.stage).stdout)
        expected = [["codesign", "--verify", "--strict", self.staged(entry)] for entry in SIGNED]
        expected.append(["launchctl", "bootout", f"system/{DAEMON_ID}"])
        for entry in ENTRIES:
            owner = ["-o", entry.owner, "-g", entry.group, "-m", f"{entry.mode:04o}"]
            if entry.path.endswith("/"):
                expected.append(["install", "-d", *owner, entry.path.rstrip("/")])
            else:
                expected.append(["mkdir", "-p", os.path.dirname(entry.path)])
                expected.append(["install", *owner, self.staged(entry), entry.path])
        expected += [["security", "authorizationdb", "write", "com.tarnwick.Netvane.admin.pair", "<", RULE],
                     ["launchctl", "enable", f"system/{DAEMON_ID}"],
                     ["launchctl", "bootstrap", "system", f"/Library/LaunchDaemons/{DAEMON_ID}.plist"]]
        self.assertEqual(commands, expected)

    def test_launchd_gets_root_files_no_one_else_may_write(self):
        for entry in ENTRIES:
            self.assertEqual((entry.owner, entry.group), ("root", "wheel"), entry.path)
            self.assertEqual(entry.mode & 0o022, 0, entry.path)
        job = next(e for e in ENTRIES if e.path.startswith("/Library/LaunchDaemons/"))
        self.assertEqual(job.mode, 0o644)

    def test_refuses_a_stage_that_differs_from_its_manifest(self):
        stray = self.stage / "usr/local/bin/stray"
        stray.write_text("x")
        self.refused("install.sh", "--dry-run", self.stage, saying="/usr/local/bin/stray, which its manifest does not list")
        stray.unlink()
        page = self.stage / "usr/local/share/man/man1/netvane.1"
        page.unlink()
        page.symlink_to("/etc/passwd")
        self.refused("install.sh", "--dry-run", self.stage, saying="has no file /usr/local/share/man/man1/netvane.1")

    def test_refuses_a_manifest_that_climbs_out(self):
        manifest = self.stage / MANIFEST.lstrip("/")
        manifest.write_text(MANIFEST_TEXT + "0644 root wheel - /usr/local/bin/../../../etc/sudoers\n")
        self.refused("install.sh", "--dry-run", self.stage, saying="not a plain path")
        manifest.write_text(MANIFEST_TEXT + "644 root wheel - /usr/local/bin/x\n")
        self.refused("install.sh", "--dry-run", self.stage, saying="not an entry")

    def test_changes_a_system_only_on_a_mac(self):
        self.refused("install.sh", self.stage, saying="run it on macOS")
        self.refused("uninstall.sh", "--manifest", self.stage / MANIFEST.lstrip("/"), saying="run it on macOS")


class Uninstalling(Stage):
    def commands(self, *options):
        output = self.script("uninstall.sh", "--dry-run", "--manifest", self.stage / MANIFEST.lstrip("/"), *options)
        return printed_commands(output.stdout), output.stdout

    def test_removes_the_job_the_right_and_every_file_and_keeps_the_pairings(self):
        commands, output = self.commands()
        files = [["rm", "-f", entry.path] for entry in reversed(ENTRIES) if not entry.path.endswith("/")]
        directories = [["rmdir", entry.path.rstrip("/")] for entry in reversed(ENTRIES) if entry.path.endswith("/")]
        self.assertEqual(commands, [["launchctl", "bootout", f"system/{DAEMON_ID}"],
                                    ["security", "authorizationdb", "remove", "com.tarnwick.Netvane.admin.pair"],
                                    *files, *directories, ["pkgutil", "--forget", "com.tarnwick.Netvane.pkg"]])
        self.assertIn(f"The pairings stay in {STATE}", output)

    def test_purge_removes_the_pairings(self):
        commands, _ = self.commands("--purge")
        self.assertIn(["rm", "-rf", STATE], commands)


class Packaging(Stage):
    def test_lays_out_the_payload_and_scripts_and_prints_pkgbuild(self):
        out = Path(self.work.name) / "package"
        output = self.script("package.sh", "--identity", f"Developer ID Installer: Jane Roe ({TEAM})", self.stage, out)
        for entry in ENTRIES:
            laid = out / "root" / entry.path.lstrip("/")
            self.assertEqual(stat.S_IMODE(laid.stat().st_mode), entry.mode, entry.path)
            if not entry.path.endswith("/"):
                self.assertEqual(laid.read_bytes(), (self.stage / entry.path.lstrip("/")).read_bytes())
        self.assertEqual(sorted(path.name for path in (out / "scripts").iterdir()),
                         ["common.sh", "postinstall", "preinstall"])
        self.assertEqual(printed_commands(output.stdout)[-1],
                         ["pkgbuild", "--root", f"{out}/root", "--scripts", f"{out}/scripts",
                          "--identifier", "com.tarnwick.Netvane.pkg", "--version", "0.1.0", "--install-location", "/",
                          "--ownership", "recommended", "--sign", f"Developer ID Installer: Jane Roe ({TEAM})",
                          f"{out}/Netvane-0.1.0.pkg"])

        # Installer's scripts: on another volume nothing runs; on this one
        # only a Mac's root gets further.
        for step in ("preinstall", "postinstall"):
            script = out / "scripts" / step
            self.assertTrue(os.access(script, os.X_OK))
            quiet = run([script, "package.pkg", "/", "/Volumes/Other"])
            self.assertEqual(quiet.stdout + quiet.stderr, "")
            refused = run([script, "package.pkg", "/", "/"], check=False)
            self.assertEqual(refused.returncode, 1)
            self.assertIn("run it on macOS", refused.stderr)

    def test_never_lays_out_over_something(self):
        out = Path(self.work.name) / "package"
        out.mkdir()
        (out / "keep").write_text("mine")
        self.refused("package.sh", self.stage, out, saying="is not empty")
        self.assertEqual((out / "keep").read_text(), "mine")


class Rule(unittest.TestCase):
    def test_asks_for_an_administrator_and_holds_the_credential_briefly(self):
        with open(SCRIPTS / "com.tarnwick.Netvane.admin.pair.plist", "rb") as file:
            rule = plistlib.load(file)
        self.assertEqual((rule["class"], rule["group"], rule["authenticate-user"]), ("user", "admin", True))
        # Shared, the credential would serve any process of the session;
        # unbounded, an approval's external form would stay good for ever.
        self.assertIs(rule["shared"], False)
        self.assertTrue(0 < rule["timeout"] <= 300)


if __name__ == "__main__":
    # Plain output for ctest; stand-in programs need no privilege.
    unittest.main(verbosity=2)
