#!/usr/bin/env python3
"""scripts/run-analyzer.py on units made for it: a clean unit passes, a
planted fault is reported and fails the run, a unit that does not compile
fails it differently; with a macOS sysroot (MACSDK), a Core Foundation leak
in Objective-C++ under ARC is reported too, which proves the ownership
checkers are on for the cross build. Exit status 0 when all hold."""
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

RUNNER = Path(__file__).resolve().parents[2] / "scripts" / "run-analyzer.py"
SYSROOT = Path(os.environ.get("MACSDK", "/tmp/macsdk"))

UNITS = {
    "clean.cpp": "int twice(int x) { return 2 * x; }\n",
    "null.cpp": "int read(int* p) { if (p) return 0; return *p; }\n",
    "broken.cpp": "int f( { }\n",
    "leak.mm": ("#import <Foundation/Foundation.h>\n"
                "CFIndex length(const char* s) {\n"
                "    CFStringRef text = CFStringCreateWithCString(nullptr, s, kCFStringEncodingUTF8);\n"
                "    return CFStringGetLength(text);\n"
                "}\n"),
}


def macos_flags():
    return ["--target=arm64-apple-macos14", "-isysroot", str(SYSROOT), "-D__ENVIRONMENT_OS_VERSION_MIN_REQUIRED__=140000",
            "-stdlib=libc++", "-nostdinc++", "-isystem", f"{SYSROOT}/usr/include/c++/v1", "-fobjc-arc",
            "-x", "objective-c++"]


class RunAnalyzer(unittest.TestCase):
    def analyse(self, name, flags=()):
        with tempfile.TemporaryDirectory() as work:
            (Path(work) / name).write_text(UNITS[name])
            command = ["clang++-16", "-std=c++20", "-Wall", "-Werror", *flags, "-o", f"{name}.o", "-c", name]
            database = Path(work) / "compile_commands.json"
            database.write_text(json.dumps([{"directory": work, "file": f"{work}/{name}", "arguments": command}]))
            return subprocess.run([sys.executable, RUNNER, database], capture_output=True, text=True, timeout=300)

    def test_a_clean_unit_passes(self):
        result = self.analyse("clean.cpp")
        self.assertEqual(result.returncode, 0, result.stdout)
        self.assertIn("0 reports", result.stdout)

    def test_a_fault_is_reported_with_its_path_and_fails(self):
        result = self.analyse("null.cpp")
        self.assertEqual(result.returncode, 1, result.stdout)
        self.assertIn("null.cpp:1:", result.stdout)
        self.assertIn("[core.NullDereference]", result.stdout)

    def test_a_unit_that_does_not_compile_is_not_a_pass(self):
        self.assertEqual(self.analyse("broken.cpp").returncode, 2)

    @unittest.skipUnless((SYSROOT / "usr/include").is_dir(), f"no macOS sysroot at {SYSROOT} (set MACSDK)")
    def test_a_core_foundation_leak_under_arc_is_reported(self):
        result = self.analyse("leak.mm", macos_flags())
        self.assertEqual(result.returncode, 1, result.stdout)
        self.assertIn("[osx.cocoa.RetainCount]", result.stdout)


if __name__ == "__main__":
    if not shutil.which("clang++-16"):
        print("run_analyzer_test: SKIPPED: no clang++-16 (scripts/install-deps.sh installs it)")
        sys.exit(77)
    unittest.main(verbosity=2)
