#!/usr/bin/env python3
"""netvane history chart end to end: a history with known traffic becomes an
SVG document that an XML parser reads, whose plotted rates match both the
traffic recorded and what the history's aggregate reports for the same
stretch; empty and single-reading histories give charts that say so.

usage: history_chart_cli_test.py FIXTURE NETVANE"""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

try:
    from lxml import etree
except ImportError:  # the standard library's parser reads it as well
    import xml.etree.ElementTree as etree

SVG = "{http://www.w3.org/2000/svg}"
NOW = "2026-11-23T12:00:00Z"
NOW_SECONDS = 817128000.0  # NOW since 2001-01-01
PERIOD = 6 * 3600
START = NOW_SECONDS - PERIOD
FIXTURE, NETVANE = sys.argv[1], sys.argv[2]


def run(*args, **kwargs):
    env = dict(os.environ, TZ="UTC")
    return subprocess.run([NETVANE, *args], capture_output=True, text=True, env=env, timeout=60, **kwargs)


def segments(d):
    """The horizontal runs of a path of M, H, V and Z commands: (x0, x1, y)."""
    runs, x, y = [], 0.0, 0.0
    for command, a, b in re.findall(r"([MHVZ])\s*(-?[\d.]+)?(?:\s+(-?[\d.]+))?", d):
        if command == "M":
            x, y = float(a), float(b)
        elif command == "V":
            y = float(a)
        elif command == "H":
            runs.append((x, float(a), y))
            x = float(a)
    return runs


class Panel:
    def __init__(self, group):
        self.name = group.get("data-interface")
        self.start = float(group.get("data-from"))
        self.end = float(group.get("data-to"))
        self.top_rate = float(group.get("data-rate-top"))
        plot = group.find(SVG + "rect[@class='plot']")
        self.x, self.y = float(plot.get("x")), float(plot.get("y"))
        self.width, self.height = float(plot.get("width")), float(plot.get("height"))
        self.paths = {p.get("class"): segments(p.get("d")) for p in group.findall(SVG + "path")}
        self.texts = ["".join(t.itertext()) for t in group.iter(SVG + "text")]

    def time(self, x):
        return self.start + (x - self.x) / self.width * (self.end - self.start)

    def x_of(self, time):
        return self.x + (time - self.start) / (self.end - self.start) * self.width

    def plotted(self, series, time):
        """(from, to, rate) of the step drawn over `time`, or None in a gap."""
        x = self.x_of(time)
        for x0, x1, y in self.paths.get(series, []):
            if x0 <= x < x1:
                rate = (self.y + self.height - y) / self.height * self.top_rate
                return self.time(x0), self.time(x1), rate
        return None


def aggregate(history, cutoff):
    shown = run("history", "show", history, "--json", "--now", NOW, "--period", repr(NOW_SECONDS - cutoff))
    assert shown.returncode == 0, shown.stderr
    return json.loads(shown.stdout)["interfaces"]["eth0"]


class HistoryChart(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="netvane-chart-")
        cls.history = os.path.join(cls.dir, "history.plist")
        subprocess.run([FIXTURE, cls.history, repr(NOW_SECONDS)], check=True)
        cls.svg = os.path.join(cls.dir, "chart.svg")
        made = run("history", "chart", cls.history, "--period", str(PERIOD), "--now", NOW, "-o", cls.svg)
        assert made.returncode == 0, made.stderr
        cls.document = etree.parse(cls.svg).getroot()
        cls.panels = {p.name: p for p in map(Panel, cls.document.iter(SVG + "g")) if p.name}

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir)

    def test_plotted_rates_match_the_traffic_and_the_aggregate(self):
        eth0 = self.panels["eth0"]
        # (instant into the period, tier it is drawn from, rate in, rate out)
        for offset, tier, rate_in, rate_out in [
            (1.5 * 3600, "hours", 50000, 5000),
            (3.5 * 3600, "hours", 2000000, 200000),
            (4.75 * 3600, "minutes", 2000000, 200000),
            (5.25 * 3600, "minutes", 300000, 1000000),
            (5.9 * 3600, "raw samples", 300000, 1000000),
        ]:
            with self.subTest(offset=offset, tier=tier):
                step_in = eth0.plotted("in", START + offset)
                step_out = eth0.plotted("out", START + offset)
                self.assertIsNotNone(step_in)
                self.assertAlmostEqual(step_in[2], rate_in, delta=rate_in * 0.01)
                self.assertAlmostEqual(step_out[2], rate_out, delta=rate_out * 0.01)
                # The step's stretch, at the 10 s grid of the readings, read
                # back through the aggregate: all from `a` on less all from `b` on.
                a, b = (round(t / 10) * 10 for t in step_in[:2])
                older, newer = aggregate(self.history, a), aggregate(self.history, b)
                seconds = older["seconds"] - newer["seconds"]
                self.assertGreater(seconds, 0)
                self.assertAlmostEqual(step_in[2], (older["bytesIn"] - newer["bytesIn"]) / seconds, delta=rate_in * 0.01)
                self.assertAlmostEqual(step_out[2], (older["bytesOut"] - newer["bytesOut"]) / seconds,
                                       delta=rate_out * 0.01)
        # The pause is a gap, not a line across it.
        self.assertIsNone(eth0.plotted("in", START + 4 * 3600 + 600))

    def test_axes_and_labels(self):
        eth0 = self.panels["eth0"]
        self.assertIn("0.0 MB/s", eth0.texts)
        self.assertIn("2.0 MB/s", eth0.texts)
        self.assertEqual(eth0.top_rate, 2000000)
        for label in ("07:00", "09:00", "11:00"):
            self.assertIn(label, eth0.texts)
        title = "".join(self.document.find(SVG + "title").itertext())
        self.assertIn("6 hours up to 2026-11-23 12:00 (UTC)", title)

    def test_single_reading_says_so_and_output_is_deterministic(self):
        self.assertIn("a single reading in this period: too few for a curve", self.panels["once"].texts)
        again = os.path.join(self.dir, "again.svg")
        self.assertEqual(run("history", "chart", self.history, "--period", str(PERIOD), "--now", NOW,
                             "-o", again).returncode, 0)
        with open(self.svg, "rb") as first, open(again, "rb") as second:
            self.assertEqual(first.read(), second.read())

    def test_empty_history_and_bad_requests(self):
        empty = os.path.join(self.dir, "missing.plist")
        out = run("history", "chart", empty, "--now", NOW, "-o", "-")
        self.assertEqual(out.returncode, 0, out.stderr)
        self.assertIn("is unreadable", out.stderr)
        root = etree.fromstring(out.stdout.encode())
        self.assertIn("no interface histories: nothing has been recorded", ["".join(t.itertext()) for t in root.iter(SVG + "text")])
        # An interface the file does not hold is an error, and no file appears.
        target = os.path.join(self.dir, "never.svg")
        out = run("history", "chart", self.history, "--interface", "eth9", "-o", target)
        self.assertEqual(out.returncode, 1)
        self.assertIn("no history of interface 'eth9'", out.stderr)
        self.assertIn("eth0, once", out.stderr)
        self.assertFalse(os.path.exists(target))
        for args in (["--now", "yesterday"], ["--period", "-5"], ["--period", "1e300"], []):
            self.assertEqual(run("history", "chart", self.history, *args, *(["-o", target] if args else [])).returncode, 2)
        self.assertFalse(os.path.exists(target))

    def test_one_interface_renders_as_an_image(self):
        one = os.path.join(self.dir, "eth0.svg")
        self.assertEqual(run("history", "chart", self.history, "--interface", "eth0", "--now", NOW, "-o", one).returncode, 0)
        panels = [g for g in etree.parse(one).getroot().iter(SVG + "g") if g.get("data-interface")]
        self.assertEqual([g.get("data-interface") for g in panels], ["eth0"])
        if shutil.which("rsvg-convert") is None:
            self.skipTest("rsvg-convert is not installed (librsvg2-bin)")
        png = subprocess.run(["rsvg-convert", "-w", "1200", one], capture_output=True, timeout=60)
        self.assertEqual(png.returncode, 0, png.stderr)
        self.assertTrue(png.stdout.startswith(b"\x89PNG"))


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
