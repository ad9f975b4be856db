#!/usr/bin/env python3
"""History files against an independent property-list implementation.

usage: history_file_interop.py FIXTURE_WRITER NETVANE_CLI

1. The fixture writer saves a known history; plistlib must read it into the
   documented shape with the expected packed buckets.
2. plistlib writes history files; `netvane history show --json` must read
   them and aggregate what they hold.
"""
import json
import math
import os
import plistlib
import struct
import subprocess
import sys
import tempfile
import time
import unittest

REFERENCE_EPOCH = 978307200.0  # 2001-01-01T00:00:00Z in Unix seconds

WRITER = None
CLI = None


def samples():
    for i in range(10):
        yield (1000.0 + 30.0 * i, 30.0, 2**53 if i == 9 else 1000 * (i + 1), i)


def expected_buckets(granularity):
    """Buckets as the tiers should hold them, built here from first principles."""
    buckets = []
    for end, duration, bytes_in, bytes_out in samples():
        start = end if granularity == 0 else granularity * math.floor(end / granularity)
        rate_in, rate_out = bytes_in / duration, bytes_out / duration
        if buckets and granularity != 0 and buckets[-1][0] == start:
            b = buckets[-1]
            buckets[-1] = (start, b[1] + duration, b[2] + bytes_in, b[3] + bytes_out,
                           min(b[4], rate_in), max(b[5], rate_in), min(b[6], rate_out), max(b[7], rate_out))
        else:
            buckets.append((start, duration, float(bytes_in), float(bytes_out), rate_in, rate_in, rate_out, rate_out))
    return buckets


def run_cli(path, *extra):
    result = subprocess.run([CLI, "history", "show", path, "--json", *extra], capture_output=True, text=True,
                            timeout=60)
    return result


class WrittenByUs(unittest.TestCase):
    def test_plistlib_reads_the_documented_shape(self):
        with tempfile.TemporaryDirectory() as tmp:
            path = os.path.join(tmp, "sub", "history.plist")
            subprocess.run([WRITER, path], check=True, timeout=60)
            with open(path, "rb") as f:
                raw = f.read()
            self.assertTrue(raw.startswith(b"bplist00"))
            root = plistlib.loads(raw)
            self.assertEqual(list(root.keys()), ["en0"], "histories without traffic are left out")
            history = root["en0"]
            self.assertEqual(list(history.keys()), ["tiers"])
            tiers = history["tiers"]
            self.assertEqual([t["granularity"] for t in tiers], [0.0, 60.0, 3600.0])
            self.assertEqual([t["retention"] for t in tiers], [3600.0, 7 * 86400.0, 365 * 86400.0])
            for tier in tiers:
                self.assertEqual(sorted(tier.keys()), ["buckets", "granularity", "retention"])
                self.assertIsInstance(tier["granularity"], float)
                self.assertIsInstance(tier["retention"], float)
                self.assertIsInstance(tier["buckets"], bytes)
                data = tier["buckets"]
                self.assertEqual(len(data) % 64, 0)
                decoded = [struct.unpack_from("<8d", data, offset) for offset in range(0, len(data), 64)]
                self.assertEqual(decoded, expected_buckets(tier["granularity"]),
                                 f"tier of granularity {tier['granularity']}")


class WrittenByPlistlib(unittest.TestCase):
    def write(self, document, fmt=plistlib.FMT_BINARY):
        path = os.path.join(self.tmp.name, "history.plist")
        with open(path, "wb") as f:
            plistlib.dump(document, f, fmt=fmt)
        return path

    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory()

    def tearDown(self):
        self.tmp.cleanup()

    @staticmethod
    def pack(buckets):
        return b"".join(struct.pack("<8d", *b) for b in buckets)

    def test_cli_aggregates_a_foreign_file(self):
        now = time.time() - REFERENCE_EPOCH
        raw = [(now - 5000, 1, 999, 999, 999, 999, 999, 999),  # outside the period
               (now - 100, 2, 400, 40, 200, 200, 20, 20),
               (now - 50, 4, 100, 0, 25, 25, 0, 0)]
        document = {
            "wlan0": {"tiers": [{"granularity": 0.0, "retention": 3600.0, "buckets": self.pack(raw)}]},
            # Whole-number fields written as integers are read as numbers too.
            "en0": {"tiers": [{"granularity": 0, "retention": 60, "buckets": b""},
                              {"granularity": 60, "retention": 3600, "buckets": b""}]},
        }
        for fmt in (plistlib.FMT_BINARY, plistlib.FMT_XML):
            result = run_cli(self.write(document, fmt), "--period", "3600")
            self.assertEqual(result.returncode, 0, result.stderr)
            self.assertEqual(result.stderr, "")
            report = json.loads(result.stdout)
            self.assertEqual(report["period"], 3600)
            wlan = report["interfaces"]["wlan0"]
            self.assertEqual((wlan["seconds"], wlan["bytesIn"], wlan["bytesOut"]), (6, 500, 40))
            self.assertEqual((wlan["minIn"], wlan["maxIn"], wlan["minOut"], wlan["maxOut"]), (25, 200, 0, 20))
            self.assertAlmostEqual(wlan["averageIn"], 500 / 6)
            self.assertEqual(wlan["tiers"], [{"granularity": 0, "retention": 3600, "buckets": 3}])
            en0 = report["interfaces"]["en0"]
            self.assertEqual((en0["seconds"], en0["bytesIn"], en0["averageIn"]), (0, 0, 0))
            self.assertIsNone(en0["minIn"], "an empty aggregate has no minimum")
            self.assertEqual([t["buckets"] for t in en0["tiers"]], [0, 0])

    def test_unreadable_files_show_an_empty_history_with_a_note(self):
        ragged = {"en0": {"tiers": [{"granularity": 0.0, "retention": 1.0, "buckets": b"\0" * 65}]}}
        for name, content in (("missing", None), ("noise", os.urandom(300)), ("ragged", ragged)):
            path = os.path.join(self.tmp.name, name)
            if isinstance(content, bytes):
                with open(path, "wb") as f:
                    f.write(content)
            elif content is not None:
                path = self.write(content)
            result = run_cli(path)
            self.assertEqual(result.returncode, 0, name)
            self.assertEqual(json.loads(result.stdout)["interfaces"], {}, name)
            self.assertIn("note", result.stderr, name)

    def test_totals_that_cannot_be_summed_are_a_note_not_a_crash(self):
        half = float(2**63)
        one_tier = {"en0": {"tiers": [{"granularity": 0.0, "retention": 3600.0,
                                       "buckets": self.pack([(10, 1, half, 0, 0, 0, 0, 0),
                                                             (20, 1, half, 0, 0, 0, 0, 0)])}]}}
        across_tiers = {"en0": {"tiers": [
            {"granularity": 0.0, "retention": 3600.0, "buckets": self.pack([(10, 1, 0, half, 0, 0, 0, 0)])},
            {"granularity": 3600.0, "retention": 1e9, "buckets": self.pack([(0, 1, 0, half, 0, 0, 0, 0)])}]}}
        for name, document in (("one tier", one_tier), ("across tiers", across_tiers)):
            result = run_cli(self.write(document), "--now", "2001-01-01T00:01:00Z")
            self.assertEqual(result.returncode, 0, f"{name}: {result.stderr}")
            self.assertEqual(json.loads(result.stdout)["interfaces"], {}, name)
            self.assertIn("note", result.stderr, name)
            self.assertIn("64 bits", result.stderr, name)

    def test_bad_period_is_a_usage_error(self):
        for period in ("0", "-5", "abc", "nan", "inf"):
            result = run_cli(os.path.join(self.tmp.name, "x"), "--period", period)
            self.assertEqual(result.returncode, 2, period)


if __name__ == "__main__":
    WRITER, CLI = sys.argv[1], sys.argv[2]
    unittest.main(argv=sys.argv[:1], verbosity=2)
