#!/usr/bin/env python3
"""Each command as a user and a careless script meet it: what `--now` counts,
how numbers, "-", "--" and repeated options are read, what a failed or
closed output does, JSON that is UTF-8 whatever the names, text from outside
that cannot drive a terminal, and help that says what a command does. Runs
in a private network namespace holding an interface with a hostile name.

usage: commands_test.py NETVANE      (exits 77 when it cannot run here)"""
import json
import os
import plistlib
import re
import resource
import shutil
import socket
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from cli_testing import history_document, reference_seconds, run  # noqa: E402

# Escape sequences, a carriage return and a byte that is no UTF-8: what an
# interface or a file may be named by whoever made it.
HOSTILE = b"e\x1b[31mv\xff"
NOW = "2026-11-23T12:00:00Z"


def strict_json(data):
    """JSON that a strict decoder takes: UTF-8 only, one document."""
    return json.loads(data.decode("utf-8", errors="strict"))


def safe_for_terminal(data):
    """No byte a terminal acts on: C0 controls but tab and newline, DEL, C1."""
    text = data.decode("utf-8", errors="strict")
    return not any((ord(c) < 0x20 and c not in "\t\n") or 0x7F <= ord(c) <= 0x9F for c in text)


class Base(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="netvane-cli-")

    def tearDown(self):
        shutil.rmtree(self.dir, ignore_errors=True)

    def write(self, name, data):
        path = os.path.join(self.dir, name)
        with open(path, "wb") as f:
            f.write(data)
        return path


class HistoryShow(Base):
    def test_now_ends_the_period(self):
        """Traffic recorded after --now is not counted, by show or by chart."""
        noon = reference_seconds(NOW)
        path = self.write("h.plist", history_document({
            "eth0": [(noon - 1800, 1.0, 1000, 2000), (noon + 900, 2.4, 5000, 5000)],
            "late": [(noon + 900, 2.4, 5000, 5000)]}))
        shown = run("history", "show", path, "--json", "--now", NOW)
        self.assertEqual(shown.returncode, 0, shown.stderr)
        interfaces = strict_json(shown.stdout)["interfaces"]
        self.assertEqual((interfaces["eth0"]["seconds"], interfaces["eth0"]["bytesIn"]), (1.0, 1000))
        self.assertEqual((interfaces["late"]["seconds"], interfaces["late"]["bytesIn"]), (0, 0))
        text = run("history", "show", path, "--now", NOW).stdout.decode()
        self.assertIn("covered   1.0 s", text)
        chart = run("history", "chart", path, "--interface", "late", "--now", NOW, "-o", "-")
        self.assertEqual(chart.returncode, 0, chart.stderr)
        self.assertIn(b"no traffic", chart.stdout)

    def test_dash_is_standard_input_and_double_dash_ends_options(self):
        document = history_document({"eth0": [(100.0, 1.0, 10, 20)]})
        piped = run("history", "show", "-", "--json", "--now", "2001-01-01T00:02:00Z", input=document)
        self.assertEqual(piped.returncode, 0, piped.stderr)
        report = strict_json(piped.stdout)
        self.assertEqual((report["file"], report["interfaces"]["eth0"]["bytesOut"]), ("standard input", 20))
        chart = run("history", "chart", "-", "-o", "-", "--now", "2001-01-01T00:02:00Z", input=document)
        self.assertEqual(chart.returncode, 0, chart.stderr)
        self.assertTrue(chart.stdout.startswith(b"<?xml"), chart.stdout[:40])
        dashed = self.write("-x", document)
        named = subprocess.run([os.environ["NETVANE"], "history", "show", "--json", "--", "-x"], cwd=self.dir,
                               capture_output=True, timeout=30)
        self.assertEqual(named.returncode, 0, named.stderr)
        self.assertIn("eth0", strict_json(named.stdout)["interfaces"])
        self.assertTrue(os.path.exists(dashed))

    def test_numbers_and_times_have_ranges(self):
        path = self.write("h.plist", history_document({}))
        for args, expected in ((("--period", "1e400"), b"from 1 to 3155760000"),
                               (("--period", "0"), b"from 1 to 3155760000"),
                               (("--now", "9999-12-31T23:59:60Z"), b"to 9999-12-31T23:59:59Z"),
                               (("--now", "1969-12-31T23:59:59Z"), b"from 1970-01-01T00:00:00Z"),
                               (("--now", NOW, "--now", NOW), b"--now is given more than once")):
            with self.subTest(args=args):
                result = run("history", "show", path, *args)
                self.assertEqual(result.returncode, 2)
                self.assertIn(expected, result.stderr)
        latest = run("history", "show", path, "--now", "9999-12-31T23:59:59Z")
        self.assertEqual(latest.returncode, 0, latest.stderr)
        self.assertIn(b"up to 9999-12-31T23:59:59Z", latest.stdout, "not clamped to another time")

    def test_text_from_the_file_cannot_drive_a_terminal(self):
        path = self.write("h.plist", plistlib.dumps({"e\x1b[2J\r\nforged": {"tiers": []}}, fmt=plistlib.FMT_BINARY))
        shown = run("history", "show", path)
        self.assertEqual(shown.returncode, 0, shown.stderr)
        self.assertTrue(safe_for_terminal(shown.stdout), shown.stdout)
        self.assertIn(b"e\\x1b[2J\\r\\nforged", shown.stdout)
        noted = run("history", "show", os.path.join(self.dir, "missing\x1b]0;title\x07"))
        self.assertTrue(safe_for_terminal(noted.stderr), noted.stderr)
        self.assertIn(b"missing\\x1b]0;title\\x07", noted.stderr)

    def test_a_huge_file_is_refused_before_it_is_read(self):
        sparse = os.path.join(self.dir, "sparse.plist")
        with open(sparse, "wb") as f:
            f.truncate(2_100_000_000)
        before = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
        started = time.monotonic()
        for args in (("history", "show", sparse), ("plist", "show", sparse),
                     ("watch", "--count", "1", "--history", sparse)):
            with self.subTest(command=args[:2]):
                result = run(*args)
                self.assertIn(b"File too large", result.stderr)
        self.assertLess(time.monotonic() - started, 10)
        peak_kb = resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss
        self.assertLess(max(peak_kb, before), 200_000, "a refused file was read into memory")


class Watch(Base):
    def test_numbers_are_parsed_once_strictly_with_their_range(self):
        history = os.path.join(self.dir, "h.plist")
        for args, expected in ((("--interval", "1e300"), b"from 0.05 to 86400"),
                               (("--interval", "1e400"), b"from 0.05 to 86400"),
                               (("--interval", "0.04"), b"from 0.05 to 86400"),
                               (("--count", " -1"), b"from 1 to 1000000000"),
                               (("--count", "0x10"), b"from 1 to 1000000000"),
                               (("--count", "1", "--count", "2"), b"--count is given more than once"),
                               (("--history", "-"), b"--history needs a file")):
            with self.subTest(args=args):
                started = time.monotonic()
                result = run("watch", "--history", history, *args) if args[0] != "--history" else run("watch", *args)
                self.assertEqual(result.returncode, 2, result.stderr)
                self.assertIn(expected, result.stderr)
                self.assertLess(time.monotonic() - started, 5)
        self.assertFalse(os.path.exists(history), "nothing recorded on a usage error")
        top = run("top", "--interval", "0.05")
        self.assertEqual(top.returncode, 2)
        self.assertIn(b"from 0.1 to 86400", top.stderr)

    def test_names_are_escaped_as_text_and_repaired_as_json(self):
        history = os.path.join(self.dir, "h.plist")
        text = run("watch", "--count", "2", "--interval", "0.1", "--history", history)
        self.assertEqual(text.returncode, 0, text.stderr)
        self.assertTrue(safe_for_terminal(text.stdout), text.stdout)
        self.assertIn(b"e\\x1b[31mv\xef\xbf\xbd", text.stdout)
        lines = run("watch", "--count", "3", "--interval", "0.1", "--json", "--history", history)
        self.assertEqual(lines.returncode, 0, lines.stderr)
        readings = [strict_json(line) for line in lines.stdout.splitlines()]
        self.assertEqual(len(readings), 3)
        self.assertIn("e\x1b[31mv\ufffd", {i["name"] for i in readings[-1]["interfaces"]})


class Status(Base):
    def test_json_is_utf8_and_text_is_escaped(self):
        for command in ("status", "services", "tunnels"):
            with self.subTest(command=command):
                result = run(command, "--json")
                self.assertEqual(result.returncode, 0, result.stderr)
                document = strict_json(result.stdout)
                self.assertTrue(result.stdout.endswith(b"}\n"), "exactly one newline ends the document")
                if command == "status":
                    self.assertIn("e\x1b[31mv\ufffd", {i["name"] for i in document["interfaces"]})
                text = run(command)
                self.assertEqual(text.returncode, 0, text.stderr)
                self.assertTrue(safe_for_terminal(text.stdout), text.stdout)
        self.assertIn(b"e\\x1b[31mv\xef\xbf\xbd: flags=", run("status").stdout)

    def test_tunnel_owners_names_are_escaped(self):
        """The owner's name comes from its bundle, which its owner wrote."""
        if not os.path.exists("/dev/net/tun"):
            self.skipTest("no /dev/net/tun")
        bundle = os.path.join(self.dir, "Evil.app", "Contents")
        os.makedirs(os.path.join(bundle, "MacOS"))
        with open(os.path.join(bundle, "Info.plist"), "wb") as f:
            plistlib.dump({"CFBundleName": "Evil\x1b]0;owned\x07\r\nroot: forged"}, f, fmt=plistlib.FMT_BINARY)
        program = os.path.join(bundle, "MacOS", "python3")
        shutil.copy(os.path.realpath(sys.executable), program)
        holder = subprocess.Popen(
            [program, "-c", "import fcntl, os, struct, sys\n"
             "fd = os.open('/dev/net/tun', os.O_RDWR)\n"
             "fcntl.ioctl(fd, 0x400454ca, struct.pack('16sH', b'nvtun0', 0x0001 | 0x1000))\n"
             "print('ready', flush=True)\nsys.stdin.read()"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=dict(os.environ, PYTHONHOME=sys.base_prefix))
        try:
            self.assertEqual(holder.stdout.readline(), b"ready\n")
            shown = run("tunnels")
            self.assertEqual(shown.returncode, 0, shown.stderr)
            if b"nvtun0" not in shown.stdout:
                self.skipTest("the tunnel scan sees no owner here (it needs root): " + shown.stdout.decode())
            self.assertTrue(safe_for_terminal(shown.stdout), shown.stdout)
            self.assertIn(b"Evil\\x1b]0;owned\\x07\\r\\nroot: forged", shown.stdout)
            self.assertTrue(safe_for_terminal(run("status").stdout))
        finally:
            holder.stdin.close()
            holder.wait(10)

    def test_the_tunnel_note_says_the_list_is_empty_for_other_users(self):
        if os.geteuid() != 0 or shutil.which("setpriv") is None:
            self.skipTest("needs root and setpriv to run as another user")
        result = subprocess.run(["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                                 os.environ["NETVANE"], "tunnels"], capture_output=True, timeout=30)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn(b"the list is empty", result.stderr)
        self.assertNotIn(b"only your own processes", result.stderr)


class Output(Base):
    def history(self):
        return self.write("h.plist", history_document({"eth0": [(100.0, 1.0, 10, 20)]}))

    def commands(self):
        history = self.history()
        return [("status",), ("status", "--json"), ("services",), ("tunnels", "--json"), ("plist", "show", history),
                ("plist", "convert", history, "--to", "xml"), ("history", "show", history),
                ("history", "chart", history, "-o", "-"), ("watch", "--count", "1", "--history",
                                                           os.path.join(self.dir, "w.plist")),
                ("--help",), ("watch", "--help")]

    def test_a_full_output_fails_with_one_line(self):
        for args in self.commands():
            with self.subTest(args=args):
                with open("/dev/full", "wb") as full:
                    result = subprocess.run([os.environ["NETVANE"], *args], stdout=full, stderr=subprocess.PIPE,
                                            timeout=30)
                self.assertEqual(result.returncode, 1, result.stderr)
                self.assertEqual(result.stderr, b"netvane: cannot write to standard output: No space left on device\n")

    def test_a_closed_pipe_ends_quietly(self):
        big = self.write("big.plist", plistlib.dumps({f"key{i}": "x" * 100 for i in range(20000)},
                                                     fmt=plistlib.FMT_BINARY))
        for args in (("plist", "show", big), ("plist", "show", big, "--json"), ("status", "--json")):
            with self.subTest(args=args):
                reader, writer = os.pipe()
                child = subprocess.Popen([os.environ["NETVANE"], *args], stdout=writer, stderr=subprocess.PIPE)
                os.close(writer)
                os.read(reader, 10)
                os.close(reader)
                _, errors = child.communicate(timeout=30)
                self.assertEqual((child.returncode, errors), (0, b""))

    def test_a_full_disk_is_a_failure_not_a_short_file(self):
        if os.geteuid() != 0 or shutil.which("unshare") is None:
            self.skipTest("needs root to mount a small file system")
        big = self.write("big.plist", plistlib.dumps({f"key{i}": "x" * 100 for i in range(2000)}))
        mount = os.path.join(self.dir, "small")
        os.mkdir(mount)
        script = ('mount -t tmpfs -o size=64k none "$1" && "$2" plist convert "$3" --to xml > "$1/out"; '
                  'echo "status $?"')
        result = subprocess.run(["unshare", "--mount", "sh", "-c", script, "sh", mount, os.environ["NETVANE"], big],
                                capture_output=True, timeout=30)
        self.assertIn(b"status 1", result.stdout, result.stderr)
        self.assertIn(b"cannot write to standard output: No space left on device", result.stderr)

    def test_json_documents_end_with_one_newline(self):
        history = self.history()
        server = socket.socket()
        server.bind(("127.0.0.1", 0))
        port = server.getsockname()[1]
        server.close()
        for args in (("history", "show", history, "--json"), ("plist", "show", history, "--json"),
                     ("public-ip", "--url", f"http://127.0.0.1:{port}/", "--json"), ("tunnels", "--json")):
            with self.subTest(args=args):
                result = run(*args)
                strict_json(result.stdout)
                self.assertTrue(result.stdout.endswith(b"}\n") and not result.stdout.endswith(b"\n\n"),
                                result.stdout[-20:])


class Plist(Base):
    def test_dash_and_double_dash(self):
        document = plistlib.dumps({"a": 1})
        shown = run("plist", "show", "-", "--json", input=document)
        self.assertEqual(strict_json(shown.stdout), {"a": 1})
        converted = subprocess.run([os.environ["NETVANE"], "plist", "convert", "-", "--to", "xml", "-o", "-"],
                                   input=document, capture_output=True, cwd=self.dir, timeout=30)
        self.assertEqual(converted.returncode, 0, converted.stderr)
        self.assertEqual(plistlib.loads(converted.stdout), {"a": 1})
        self.assertFalse(os.path.exists(os.path.join(self.dir, "-")), "-o - is standard output, not a file named -")
        self.write("--json", document)
        named = subprocess.run([os.environ["NETVANE"], "plist", "show", "--", "--json"], capture_output=True,
                               cwd=self.dir, timeout=30)
        self.assertEqual(named.returncode, 0, named.stderr)
        self.assertIn(b"<key>a</key>", named.stdout)

    def test_a_control_character_names_the_file_and_suggests_json(self):
        path = self.write("ctl.plist", plistlib.dumps({"bell": "ding\x07"}, fmt=plistlib.FMT_BINARY))
        result = run("plist", "show", path)
        self.assertEqual(result.returncode, 1)
        self.assertIn(path.encode(), result.stderr)
        self.assertIn(b"--json", result.stderr)
        self.assertEqual(strict_json(run("plist", "show", path, "--json").stdout), {"bell": "ding\x07"})

    def test_xml_output_cannot_drive_a_terminal(self):
        path = self.write("c1.plist", plistlib.dumps({"csi": "a\x9b2J\x7fb"}, fmt=plistlib.FMT_BINARY))
        result = run("plist", "show", path)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertTrue(safe_for_terminal(result.stdout), result.stdout)
        self.assertEqual(plistlib.loads(result.stdout), {"csi": "a\x9b2J\x7fb"})


class PublicIP(Base):
    def test_a_malformed_url_is_a_usage_error_with_its_reason(self):
        for url, reason in (("ftp://127.0.0.1/ip", b"http or https"), ("127.0.0.1/ip", b"http:// or https://"),
                            ("http://:80/", b"no host"), ("http://127.0.0.1:0/", b"port from 1 to 65535"),
                            ("http://127.0.0.1:/", b"port from 1 to 65535"),
                            ("http://127.0.0.1:65536/", b"port from 1 to 65535"),
                            ("http://[::1/", b"closing ]"), ("http://127.0.0.1/a b", b"percent-encoded")):
            with self.subTest(url=url):
                result = run("public-ip", "--url", url)
                self.assertEqual(result.returncode, 2, result.stderr)
                self.assertIn(reason, result.stderr)


class Help(Base):
    def test_help_is_uniform_and_fits_eighty_columns(self):
        listing = run("--help")
        self.assertEqual(listing.returncode, 0)
        self.assertIn(b"netvane --version", listing.stdout)
        names = [line.strip().split("  ")[0] for line in
                 listing.stdout.decode().split("commands:\n", 1)[1].splitlines() if re.match(r"  \S", line)]
        self.assertIn("history show", names)
        for name in [None] + [n for n in names if n != "admin"]:
            with self.subTest(command=name):
                shown = run(*(name.split() if name else []), "--help")
                self.assertEqual(shown.returncode, 0)
                text = shown.stdout.decode()
                for line in text.splitlines():
                    self.assertLessEqual(len(line), 79, line)
                if name:
                    self.assertIn("\nusage:\n  netvane " + name, text)
                    self.assertIn("\noptions:\n", text)
                    self.assertIn("-h, --help", text)
        def flowing(*args):
            return b" ".join(run(*args, "--help").stdout.split())

        self.assertIn(b"(0.05 to 86400; default 1)", flowing("watch"))
        self.assertIn(b"(0.1 to 86400; default 1)", flowing("top"))
        self.assertIn(b"2026-11-23T14:00:00Z", run("history", "show", "--help").stdout)
        self.assertIn(b"2026-11-23T14:00:00Z", run("history", "chart", "--help").stdout)
        group = run("history", "--help")
        self.assertEqual(group.returncode, 0)
        self.assertIn(b"netvane history show FILE", group.stdout)


if __name__ == "__main__":
    from cli_testing import in_private_network  # noqa: E402

    if len(sys.argv) < 2 and "NETVANE" not in os.environ:
        sys.exit(__doc__)
    if in_private_network(__file__, sys.argv[1] if len(sys.argv) > 1 else os.environ["NETVANE"]):
        # Two ends of a pair, one named as a hostile user would name it.
        subprocess.run(["ip", "link", "add", HOSTILE, "type", "veth", "peer", "name", "nvpeer0"], check=True)
        subprocess.run(["ip", "link", "set", HOSTILE, "up"], check=True)
        unittest.main(argv=sys.argv[:1], verbosity=2)
