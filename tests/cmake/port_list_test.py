#!/usr/bin/env python3
"""The port list in README.md against the tree and the configure step.

usage: port_list_test.py SOURCE_DIR CMAKE

Every file the list names for Linux and macOS exists; configuring for an OS
the tree has no folders for stops, naming every seam of the list.
"""
import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

SOURCE, CMAKE = (Path(sys.argv[1]), sys.argv[2]) if len(sys.argv) == 3 else (None, None)


def port_rows():
    text = (SOURCE / "README.md").read_text()
    section = text.split("## Porting to another OS", 1)[1].split("\n## ", 1)[0]
    rows = []
    for line in section.splitlines():
        cells = [cell.strip() for cell in line.strip().strip("|").split("|")]
        if len(cells) == 4 and cells[0] not in ("Seam", "---"):
            rows.append(cells)
    return rows


class PortList(unittest.TestCase):
    def test_every_file_it_names_exists(self):
        rows = port_rows()
        self.assertGreater(len(rows), 15)
        for seam, _, linux, darwin in rows:
            for files in (linux, darwin):
                for pattern in re.findall(r"`([^`]+)`", files):
                    with self.subTest(seam=seam, file=pattern):
                        self.assertTrue(list(SOURCE.glob(pattern)), f"{pattern} is not in the tree")

    def test_an_unknown_os_stops_the_configure_step_naming_every_seam(self):
        with tempfile.TemporaryDirectory(prefix="netvane-port-") as build:
            result = subprocess.run(
                [CMAKE, "-S", SOURCE, "-B", build, "-DNETVANE_OS=plan9", "-DNETVANE_BUILD_TESTS=OFF",
                 "-DNETVANE_BUILD_BENCHMARKS=OFF", "-DNETVANE_BUILD_FUZZERS=OFF"],
                capture_output=True, text=True, timeout=300)
            self.assertNotEqual(result.returncode, 0, "configured for an OS without a backend")
            self.assertFalse((Path(build) / "build.ninja").exists() or (Path(build) / "Makefile").exists(),
                             "generated a build for an OS without a backend")
        said = " ".join(result.stderr.split())
        for seam, _, _, _ in port_rows():
            with self.subTest(seam=seam):
                self.assertIn(f"Netvane has no {seam} ", said)


if __name__ == "__main__":
    if SOURCE is None:
        sys.exit(__doc__)
    unittest.main(argv=sys.argv[:1], verbosity=2)
