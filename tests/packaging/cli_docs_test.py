#!/usr/bin/env python3
"""The manual pages and the bash completion against the programs they describe.

usage: cli_docs_test.py NETVANE BUILD_MAN_DIR COMPLETION_FILE

Every command that `netvane --help` lists, and every option that its own
`--help` names, must be in netvane(1) and in the completion tables; the
pages must render without a warning; and the completion must offer what a
user expects at each place on the command line.
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

NETVANE, MAN_DIR, COMPLETION = (Path(arg).resolve() for arg in sys.argv[1:4]) if len(sys.argv) == 4 else (None,) * 3


def netvane_help(*args):
    result = subprocess.run([NETVANE, *args, "--help"], capture_output=True, text=True, timeout=30)
    assert result.returncode == 0, result.stderr
    return result.stdout


def commands():
    """The first word of each command `netvane --help` lists ("history" for
    "history show" and "history chart"), once each."""
    listing = netvane_help().split("commands:", 1)[1]
    return sorted({line.split()[0] for line in listing.splitlines() if re.match(r"  \S", line)})


def usage_block(text):
    """The synopsis lines of a help text, continuation lines included."""
    block = text.split("usage:\n", 1)[1].split("\n\n", 1)[0] if "usage:\n" in text else text
    return [line for line in block.splitlines() if line.strip().startswith("netvane ") or line.startswith("    ")]


def options_in(lines):
    return sorted({option for line in lines for option in re.findall(r"(?<![\w-])(--?[a-z][\w-]*)", line)})


def options_of(command):
    """The options named in the command's synopsis lines."""
    return options_in(usage_block(netvane_help(command)))


def complete(line, cwd=None):
    """What the completion offers for the last word of `line`."""
    words = line.split(" ")
    script = f"""
source {COMPLETION} || exit 3
COMP_WORDS=({" ".join(f"'{word}'" for word in words)})
COMP_CWORD={len(words) - 1}
COMP_LINE='{line}'
COMP_POINT={len(line)}
compopt() {{ :; }}
spec=$(complete -p {words[0]})
function=${{spec#*-F }}
"${{function%% *}}" {words[0]} '{words[-1]}' '{words[-2] if len(words) > 1 else ''}'
printf '%s\\n' "${{COMPREPLY[@]}}"
"""
    result = subprocess.run(["bash", "--norc", "--noprofile", "-c", script], capture_output=True, text=True,
                            timeout=30, cwd=cwd)
    assert result.returncode == 0, result.stderr
    return sorted(word for word in result.stdout.splitlines() if word)


class Documentation(unittest.TestCase):
    def test_every_command_and_option_is_in_the_manual_and_the_completion(self):
        page = (MAN_DIR / "netvane.1").read_text()
        subsections = [line for line in page.splitlines() if line.startswith(".SS ")]
        names = commands()
        self.assertGreater(len(names), 5)
        self.assertEqual(complete("netvane "), sorted(names))
        for command in names:
            with self.subTest(command=command):
                entries = [entry for entry in subsections if entry.split()[1].strip('"').replace("\\-", "-") == command]
                self.assertTrue(entries, "no .SS entry in netvane.1")
                described = " ".join(entries).replace("\\-", "-")
                offered = complete(f"netvane {command} -")
                for option in options_of(command):
                    self.assertIn(option, described, "option missing from the manual's entry")
                    if option != "--help":
                        self.assertIn(option, offered, "option missing from the completion")

    def test_pages_render_without_warnings(self):
        if shutil.which("groff") is None:
            self.skipTest("groff is not installed")
        for page in sorted(MAN_DIR.glob("*.[0-9]")):
            with self.subTest(page=page.name):
                result = subprocess.run(["groff", "-man", "-Tutf8", "-ww", "-z", page], capture_output=True, text=True,
                                        timeout=30)
                self.assertEqual((result.returncode, result.stderr), (0, ""))
                self.assertNotIn("@", page.read_text(), "an unsubstituted template variable")


class Help(unittest.TestCase):
    def test_every_option_in_a_synopsis_is_described_and_no_other(self):
        listing = netvane_help().split("commands:", 1)[1]
        names = [line.strip().split("  ")[0] for line in listing.splitlines() if re.match(r"  \S", line)]
        for name in names:
            text = netvane_help(*name.split())
            if name == "admin" or "\noptions:\n" not in text:
                continue  # reads its own arguments
            with self.subTest(command=name):
                described = text.split("\noptions:\n", 1)[1]
                listed = sorted({match for match in re.findall(r"^  (--?[a-z][\w-]*)", described, re.M)} - {"-h"})
                self.assertEqual(options_in(usage_block(text)), listed)


class Completion(unittest.TestCase):
    def test_subcommands_follow_the_command_path(self):
        cases = {
            "netvane pu": ["public-ip"],
            "netvane plist ": ["convert", "show"],
            "netvane history ": ["chart", "show"],
            "netvane admin ": ["app", "control"],
            "netvane admin control ": ["approve", "deny", "pending", "status", "unpair-all"],
            # An option and its value in between do not count as words.
            "netvane admin --runtime-dir /tmp app s": ["set-service", "status"],
            "netvane admin app set-service Wi-Fi ": ["off", "on"],
            "netvane admin control approve ": [],
            "netvane -": ["--help", "--version"],
        }
        for line, expected in cases.items():
            with self.subTest(line=line):
                self.assertEqual(complete(line), expected)

    def test_option_values_and_operands_by_kind(self):
        with tempfile.TemporaryDirectory() as directory:
            Path(directory, "history.plist").touch()
            Path(directory, "-x.plist").touch()
            Path(directory, "sub").mkdir()
            cases = {
                "netvane plist convert x --to ": ["binary", "xml"],
                "netvane public-ip --provider echoS": ["echoSecondary"],
                "netvane watch --history h": ["history.plist"],
                "netvane plist show ": ["-x.plist", "history.plist", "sub"],
                "netvane plist show history.plist ": [],
                "netvane watch --interval ": [],
                "netvane admin --runtime-dir ": ["sub"],
                "netvane-admind --state-dir ": ["sub"],
                "netvane-admind --f": ["--foreground"],
                # After "--" a word that starts with a dash is a file, and
                # "-" (standard input) is an operand like any other.
                "netvane plist show -- -": ["-x.plist"],
                "netvane plist convert - --to ": ["binary", "xml"],
            }
            for line, expected in cases.items():
                with self.subTest(line=line):
                    self.assertEqual(complete(line, cwd=directory), expected)


if __name__ == "__main__":
    if NETVANE is None:
        sys.exit(__doc__)
    unittest.main(argv=sys.argv[:1], verbosity=2)
