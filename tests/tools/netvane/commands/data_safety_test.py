#!/usr/bin/env python3
"""What the live commands and the writers do to the files they are given: a
file that is not a history is never replaced, a write keeps what it replaces
(mode, owner, a link, a device), every catchable way watch ends saves what it
read, and one program records a history file at a time. Runs in a private
network namespace, with traffic on loopback so that every reading counts.

usage: data_safety_test.py NETVANE      (exits 77 when it cannot run here)"""
import os
import pty
import signal
import stat
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from cli_testing import Traffic, history_document, raw_seconds, read_history, run  # noqa: E402

NETVANE = None


def snapshot(path):
    """What a refused command must leave exactly as it was."""
    info = os.lstat(path)
    content = None
    if stat.S_ISREG(info.st_mode):
        with open(path, "rb") as f:
            content = f.read()
    return (info.st_ino, info.st_mode, info.st_uid, info.st_gid, info.st_rdev, content)


def can_make_devices(directory):
    try:
        os.mknod(os.path.join(directory, "probe"), 0o666 | stat.S_IFCHR, os.makedev(1, 3))
        os.unlink(os.path.join(directory, "probe"))
        return True
    except PermissionError:
        return False


INTERVAL = 0.05


def start_watch(history, *extra):
    return subprocess.Popen([NETVANE, "watch", "--interval", str(INTERVAL), "--history", history, *extra],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def rates_seen(watch, count, timeout=20):
    """Reads watch's output until it has shown `count` rates of lo; the
    seconds those readings covered, at the least."""
    deadline, seen = time.monotonic() + timeout, 0
    while seen < count:
        if time.monotonic() > deadline:
            raise AssertionError(f"only {seen} rates of lo in {timeout} s")
        line = watch.stdout.readline()
        if not line:
            raise AssertionError(f"the output ended after {seen} rates of lo")
        seen += line.startswith("  lo ")
    return seen * INTERVAL * 0.9


class Base(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="netvane-safety-")
        self.traffic = Traffic()
        self.traffic.start()

    def tearDown(self):
        self.traffic.stop.set()
        self.traffic.join()
        subprocess.run(["rm", "-rf", self.dir])

    def path(self, name):
        return os.path.join(self.dir, name)


class HistoryFileIsNeverReplaced(Base):
    """A file that exists and is not a readable history is refused, exit 1,
    and left exactly as it was; only a missing file starts a history."""

    def strangers(self):
        made = {}
        for name, content in (("notes.txt", b"my notes\n"), ("empty", b""),
                              ("broken.plist", history_document({"lo": [(1.0, 1.0, 10, 10)]})[:-9])):
            with open(self.path(name), "wb") as f:
                f.write(content)
            made[name] = self.path(name)
        os.mkfifo(self.path("fifo"))
        made["fifo"] = self.path("fifo")
        os.mkdir(self.path("directory"))
        made["directory"] = self.path("directory")
        if can_make_devices(self.dir):
            os.mknod(self.path("null"), 0o666 | stat.S_IFCHR, os.makedev(1, 3))
            made["device"] = self.path("null")
        return made

    def test_watch_refuses_what_is_not_a_history(self):
        for kind, path in self.strangers().items():
            with self.subTest(kind=kind):
                before = snapshot(path)
                result = run("watch", "--count", "2", "--interval", "0.05", "--history", path, timeout=20)
                self.assertEqual(result.returncode, 1, result.stderr)
                message = result.stderr.decode()
                self.assertIn(path, message)
                self.assertEqual(message.count("\n"), 1, message)
                self.assertEqual(result.stdout, b"", "no reading before the refusal")
                self.assertEqual(snapshot(path), before)
                self.assertFalse(os.path.exists(path + ".lock"), "a refused file gets no lock file beside it")

    def test_top_refuses_it_too(self):
        path = self.path("notes.txt")
        with open(path, "wb") as f:
            f.write(b"my notes\n")
        controller, terminal = pty.openpty()
        try:
            result = subprocess.run([NETVANE, "top", "--history", path], stdin=terminal, stdout=terminal,
                                    stderr=subprocess.PIPE, timeout=20, env=dict(os.environ, TERM="xterm"))
        finally:
            os.close(terminal)
            os.close(controller)
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn(b"is not a readable history", result.stderr)
        with open(path, "rb") as f:
            self.assertEqual(f.read(), b"my notes\n")

    def test_missing_file_starts_a_history_and_a_history_is_continued(self):
        path = self.path("sub/history.plist")
        first = run("watch", "--count", "3", "--interval", "0.1", "--history", path)
        self.assertEqual(first.returncode, 0, first.stderr)
        covered = raw_seconds(read_history(path), "lo")
        self.assertGreater(covered, 0.1)
        second = run("watch", "--count", "3", "--interval", "0.1", "--history", path)
        self.assertEqual(second.returncode, 0, second.stderr)
        self.assertGreater(raw_seconds(read_history(path), "lo"), covered + 0.1, "the second run continued the first")


class WritesKeepWhatTheyReplace(Base):
    """plist convert -o, history chart -o and history saves: a regular file
    keeps its mode and owner, a link is followed, a pipe or a device is
    written into, a directory or a link to nothing is refused."""

    def plist(self, name, mode=0o600):
        path = self.path(name)
        with open(path, "wb") as f:
            f.write(history_document({"lo": [(100.0, 1.0, 10, 20)]}))
        os.chmod(path, mode)
        return path

    def test_a_file_converted_onto_itself_keeps_its_mode_and_owner(self):
        path = self.plist("pairs.plist", 0o600)
        root = os.geteuid() == 0 and can_make_devices(self.dir)
        if root:
            os.chown(path, 4321, 4322)
        result = run("plist", "convert", path, "--to", "xml", "-o", path)
        self.assertEqual(result.returncode, 0, result.stderr)
        info = os.stat(path)
        self.assertEqual(stat.S_IMODE(info.st_mode), 0o600)
        if root:
            self.assertEqual((info.st_uid, info.st_gid), (4321, 4322))
        with open(path, "rb") as f:
            self.assertTrue(f.read().startswith(b"<?xml"))

    def test_links_are_followed_and_a_link_to_nothing_is_refused(self):
        source = self.plist("source.plist")
        target = self.plist("target.svg", 0o640)
        os.symlink("target.svg", self.path("link.svg"))
        chart = run("history", "chart", source, "--now", "2001-01-01T00:02:00Z", "-o", self.path("link.svg"))
        self.assertEqual(chart.returncode, 0, chart.stderr)
        self.assertTrue(os.path.islink(self.path("link.svg")))
        with open(target, "rb") as f:
            self.assertIn(b"<svg", f.read())
        self.assertEqual(stat.S_IMODE(os.stat(target).st_mode), 0o640)

        os.symlink("nowhere.plist", self.path("dangling"))
        refused = run("plist", "convert", source, "--to", "xml", "-o", self.path("dangling"))
        self.assertEqual(refused.returncode, 1)
        self.assertIn(b"symbolic link to a missing file", refused.stderr)
        self.assertFalse(os.path.exists(self.path("nowhere.plist")))

        # A history saved through a link: the link stays, the file it names grows.
        history = self.path("history.plist")
        with open(history, "wb") as f:
            f.write(history_document({}))
        os.symlink("history.plist", self.path("current.plist"))
        watched = run("watch", "--count", "3", "--interval", "0.1", "--history", self.path("current.plist"))
        self.assertEqual(watched.returncode, 0, watched.stderr)
        self.assertTrue(os.path.islink(self.path("current.plist")))
        self.assertGreater(raw_seconds(read_history(history), "lo"), 0)

    def test_pipes_and_devices_are_written_into_and_directories_refused(self):
        source = self.plist("source.plist")
        os.mkfifo(self.path("fifo"))
        received = []

        def read_fifo():
            with open(self.path("fifo"), "rb") as fifo:
                received.append(fifo.read())

        reader = threading.Thread(target=read_fifo)
        reader.start()
        result = run("plist", "convert", source, "--to", "xml", "-o", self.path("fifo"))
        reader.join(10)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertTrue(received and received[0].startswith(b"<?xml"), received)
        self.assertTrue(stat.S_ISFIFO(os.lstat(self.path("fifo")).st_mode))

        if can_make_devices(self.dir):
            null = self.path("null")
            os.mknod(null, 0o666 | stat.S_IFCHR, os.makedev(1, 3))
            for args in (("plist", "convert", source, "--to", "binary", "-o", null),
                         ("history", "chart", source, "-o", null)):
                with self.subTest(args=args[:2]):
                    result = run(*args)
                    self.assertEqual(result.returncode, 0, result.stderr)
                    self.assertTrue(stat.S_ISCHR(os.lstat(null).st_mode), "the device is still a device")

        os.mkdir(self.path("directory"))
        refused = run("plist", "convert", source, "--to", "xml", "-o", self.path("directory"))
        self.assertEqual(refused.returncode, 1)
        self.assertEqual(os.listdir(self.path("directory")), [])


class EveryEndingSaves(Base):
    """Each catchable way watch ends saves what it read, long before the first
    periodic save (60 s)."""

    def test_signals_save_the_readings(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT, signal.SIGUSR1, signal.SIGALRM):
            with self.subTest(signal=signal.Signals(number).name):
                history = self.path(f"history-{number}.plist")
                watch = start_watch(history)
                shown = rates_seen(watch, 5)
                watch.send_signal(number)
                _, errors = watch.communicate(timeout=20)
                self.assertEqual(watch.returncode, 0, errors)
                self.assertEqual(errors, "")
                self.assertGreaterEqual(raw_seconds(read_history(history), "lo"), shown,
                                        "every reading shown was saved")

    def test_a_closed_pipe_ends_quietly_and_saves(self):
        history = self.path("history.plist")
        shell = subprocess.run(
            ["bash", "-c", f'"$0" watch --json --interval 0.05 --history "$1" | head -n 3 >/dev/null; '
                           'echo "${PIPESTATUS[0]}"', NETVANE, history],
            capture_output=True, text=True, timeout=30)
        self.assertEqual(shell.stdout.strip(), "0", shell.stderr)
        self.assertEqual(shell.stderr, "", "a closed pipe ends quietly")
        self.assertGreater(raw_seconds(read_history(history), "lo"), 0.05)


class OneRecorderPerFile(Base):
    """A second recorder of one history file is refused while the first
    records, whichever path it takes; the first loses nothing."""

    def test_second_watch_is_refused_and_the_first_keeps_its_readings(self):
        history = self.path("history.plist")
        first = start_watch(history)
        shown = rates_seen(first, 2)
        os.symlink("history.plist", self.path("alias.plist"))
        for path in (history, self.path("alias.plist")):
            with self.subTest(path=path):
                second = run("watch", "--count", "2", "--interval", "0.05", "--history", path)
                self.assertEqual(second.returncode, 1)
                message = second.stderr.decode()
                self.assertIn("is being recorded by another program", message)
                self.assertIn(f"process {first.pid}", message)
        shown += rates_seen(first, 8)
        first.send_signal(signal.SIGINT)
        first.communicate(timeout=20)
        self.assertEqual(first.returncode, 0)
        self.assertGreaterEqual(raw_seconds(read_history(history), "lo"), shown,
                                "the first recorder kept everything it read")
        after = run("watch", "--count", "2", "--interval", "0.05", "--history", history)
        self.assertEqual(after.returncode, 0, after.stderr)

    def test_a_shell_script_takes_the_same_lock(self):
        history = self.path("history.plist")
        # In a group of its own: flock's child must go with it.
        holder = subprocess.Popen(["flock", "-n", history + ".lock", "sh", "-c", "echo locked; exec sleep 30"],
                                  stdout=subprocess.PIPE, start_new_session=True)
        try:
            self.assertEqual(holder.stdout.readline(), b"locked\n")
            refused = run("watch", "--count", "1", "--history", history)
            self.assertEqual(refused.returncode, 1, refused.stderr)
            self.assertIn(b"another program", refused.stderr)
            self.assertFalse(os.path.exists(history), "nothing was recorded")
        finally:
            os.killpg(holder.pid, signal.SIGKILL)
            holder.wait()


if __name__ == "__main__":
    sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
    from cli_testing import in_private_network  # noqa: E402

    if len(sys.argv) < 2 and "NETVANE" not in os.environ:
        sys.exit(__doc__)
    if in_private_network(__file__, sys.argv[1] if len(sys.argv) > 1 else os.environ["NETVANE"]):
        NETVANE = os.environ["NETVANE"]
        unittest.main(argv=sys.argv[:1], verbosity=2)
