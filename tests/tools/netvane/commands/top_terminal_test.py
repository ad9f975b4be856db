#!/usr/bin/env python3
"""netvane top on a real terminal: tmux runs it in a private network
namespace (made with unshare, torn down when the test ends) where loopback
carries paced UDP traffic of a known rate. The captured pane must show the
interface, its rate within 20 %, a sparkline and the primary interface mark;
q must end it with exit status 0. Without a terminal it must refuse. Real
signals end it too: each saves what it read, and where the terminal
outlives it (SIGTERM, SIGQUIT, SIGUSR1), gives the screen back; closing the
terminal (SIGHUP) still saves.

usage: top_terminal_test.py NETVANE      (exits 77 when it cannot run here)"""
import os
import plistlib
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

SKIP = 77
PACKETS_PER_SECOND = 250
PAYLOAD = 1000
# What loopback's counters add to each datagram: UDP, IPv4 and the
# Ethernet-style header loopback frames carry.
OVERHEAD = 8 + 20 + 14
UNITS = {"B/s": 1, "KB/s": 1e3, "MB/s": 1e6, "GB/s": 1e9}
SPARK = set("\u2581\u2582\u2583\u2584\u2585\u2586\u2587\u2588")


def fail(message):
    print("FAIL: " + message, file=sys.stderr)
    sys.exit(1)


def rate(text):
    number, unit = text.split()
    return float(number) * UNITS[unit]


class Sender(threading.Thread):
    """UDP datagrams to a socket of our own on loopback, on a fixed schedule."""

    def __init__(self):
        super().__init__(daemon=True)
        self.receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.receiver.bind(("127.0.0.1", 0))
        self.receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        self.stop = threading.Event()
        self.sent = 0
        self.started = time.monotonic()

    def run(self):
        out = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        target = self.receiver.getsockname()
        payload = b"x" * PAYLOAD
        while not self.stop.is_set():
            left = self.started + self.sent / PACKETS_PER_SECOND - time.monotonic()
            if left > 0:
                time.sleep(min(0.002, left))
                continue
            out.sendto(payload, target)
            self.sent += 1
            try:  # keep the receive queue from filling
                while True:
                    self.receiver.recv(PAYLOAD, socket.MSG_DONTWAIT)
            except BlockingIOError:
                pass

    def achieved(self):
        return self.sent / (time.monotonic() - self.started) * (PAYLOAD + OVERHEAD)


def covered(history, name):
    """The seconds the raw tier of `name` covers in a history file."""
    with open(history, "rb") as f:
        tiers = plistlib.load(f).get(name, {}).get("tiers", [])
    data = tiers[0]["buckets"] if tiers else b""
    return sum(struct.unpack_from("<8d", data, i)[1] for i in range(0, len(data), 64))


def ended_by_signal(netvane, tmux, workdir, number):
    """top runs for a while, then gets `number` from outside; the pane's shell
    outlives it and reports its status. The screen must be given back and
    the readings saved."""
    history, status = os.path.join(workdir, f"signal-{number}.plist"), os.path.join(workdir, f"status-{number}")
    session = f"signal{number}"
    command = f"{netvane} top --interval 0.2 --history {history}; echo $? > {status}; sleep 60"
    subprocess.run(tmux + ["new-session", "-d", "-s", session, "-x", "120", "-y", "20", command], check=True)
    time.sleep(2.5)
    shell = subprocess.run(tmux + ["display", "-p", "-t", session, "#{pane_pid}"], capture_output=True,
                           text=True).stdout.strip()
    top = subprocess.run(["pgrep", "-P", shell], capture_output=True, text=True).stdout.split()
    if len(top) != 1:
        fail(f"cannot find top under the pane's shell {shell}: {top}")
    os.kill(int(top[0]), number)
    deadline = time.monotonic() + 10
    while not os.path.exists(status) and time.monotonic() < deadline:
        time.sleep(0.1)
    name = signal.Signals(number).name
    if not os.path.exists(status):
        fail(f"{name} did not end top")
    with open(status) as f:
        code = f.read().strip()
    if code != "0":
        fail(f"top ended by {name} with status {code}")
    screen = subprocess.run(tmux + ["display", "-p", "-t", session, "#{alternate_on} #{cursor_flag}"],
                            capture_output=True, text=True).stdout.split()
    if screen != ["0", "1"]:
        fail(f"after {name} the terminal still shows top's screen or hides its cursor: {screen}")
    if covered(history, "lo") < 1.0:
        fail(f"after {name} the history holds {covered(history, 'lo'):.2f} s of lo, not the 2 s read")


def closed_terminal(netvane, tmux, workdir):
    """Closing the terminal sends SIGHUP: top has no screen to give back, but
    saves what it read."""
    history = os.path.join(workdir, "hangup.plist")
    subprocess.run(tmux + ["new-session", "-d", "-s", "hangup", "-x", "120", "-y", "20",
                           f"{netvane} top --interval 0.2 --history {history}"], check=True)
    time.sleep(2.5)
    subprocess.run(tmux + ["kill-session", "-t", "hangup"], check=True)
    deadline = time.monotonic() + 10
    while time.monotonic() < deadline and (not os.path.exists(history) or covered(history, "lo") < 1.0):
        time.sleep(0.1)
    if not os.path.exists(history) or covered(history, "lo") < 1.0:
        fail("closing the terminal lost what top read")


def inside(netvane):
    """Runs in the private namespace: traffic, tmux, the checks."""
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    # A default route through one end of a veth pair makes it the primary.
    for command in (["ip", "link", "add", "nvtop0", "type", "veth", "peer", "name", "nvtop1"],
                    ["ip", "link", "set", "nvtop0", "up"], ["ip", "link", "set", "nvtop1", "up"],
                    ["ip", "addr", "add", "10.99.0.1/24", "dev", "nvtop0"],
                    ["ip", "route", "add", "default", "via", "10.99.0.2", "dev", "nvtop0"]):
        subprocess.run(command, check=True)
    workdir = tempfile.mkdtemp(prefix="netvane-top-")
    sock, status = os.path.join(workdir, "tmux.sock"), os.path.join(workdir, "status")
    tmux = ["tmux", "-S", sock, "-f", "/dev/null"]
    sender = Sender()
    sender.start()
    command = (f"env LANG=C.UTF-8 LC_ALL=C.UTF-8 {netvane} top --interval 0.5 --history {workdir}/history.plist; "
               f"echo $? > {status}")
    try:
        subprocess.run(tmux + ["new-session", "-d", "-x", "150", "-y", "20", command], check=True)
        row, deadline = None, time.monotonic() + 30
        while time.monotonic() < deadline:
            time.sleep(1)
            pane = subprocess.run(tmux + ["capture-pane", "-p"], capture_output=True, text=True).stdout
            row = next((line for line in pane.splitlines() if re.match(r"^[* ] lo ", line)), None)
            # Enough readings for a sparkline several columns long.
            if row and sender.sent > 4 * PACKETS_PER_SECOND and len(SPARK.intersection(row)) > 0 \
                    and sum(c in SPARK for c in row) >= 6:
                break
        print(pane)
        if row is None:
            fail("no row for lo")
        fields = re.match(r"^[* ] lo\s+(\S+ \S+)\s+(\S+ \S+)\s+(\S+ \S+)\s+(\S+ \S+)\s+(.*)$", row)
        if not fields:
            fail("the lo row reads oddly: " + row)
        expected = sender.achieved()
        for name, shown in (("in", rate(fields[1])), ("out", rate(fields[2]))):
            if abs(shown - expected) > 0.2 * expected:
                fail(f"lo {name} shows {shown:.0f} B/s, the traffic is {expected:.0f} B/s")
        if sum(c in SPARK for c in fields[5]) < 6:
            fail("no sparkline on the lo row: " + row)
        if not re.search(r"^\* nvtop0 ", pane, re.M):
            fail("the primary interface is not marked")
        if "LAST MINUTE" not in pane or "q quits" not in pane:
            fail("the column heads or the title are missing")
        # A resized window is drawn again at its new width.
        subprocess.run(tmux + ["resize-window", "-x", "70", "-y", "20"], check=True)
        time.sleep(1.5)
        narrow = subprocess.run(tmux + ["capture-pane", "-p"], capture_output=True, text=True).stdout
        if "LAST MINUTE" in narrow or " lo " not in narrow:
            fail("after resizing to 70 columns the view did not redraw to fit:\n" + narrow)
        subprocess.run(tmux + ["send-keys", "q"], check=True)
        deadline = time.monotonic() + 10
        while not os.path.exists(status) and time.monotonic() < deadline:
            time.sleep(0.1)
        if not os.path.exists(status):
            fail("q did not end top")
        with open(status) as f:
            code = f.read().strip()
        if code != "0":
            fail("top ended with status " + code)
        if not os.path.exists(os.path.join(workdir, "history.plist")):
            fail("top recorded no history")
        for number in (signal.SIGTERM, signal.SIGQUIT, signal.SIGUSR1):
            ended_by_signal(netvane, tmux, workdir, number)
        closed_terminal(netvane, tmux, workdir)
    finally:
        sender.stop.set()
        subprocess.run(tmux + ["kill-server"], capture_output=True)
        shutil.rmtree(workdir, ignore_errors=True)
    print("ok: top showed lo at the traffic's rate with a sparkline, marked the primary, redrew on resize, q exited 0;"
          " SIGTERM, SIGQUIT and SIGUSR1 gave the screen back and saved, a closed terminal saved")


def main():
    if len(sys.argv) == 3 and sys.argv[1] == "--inside":
        inside(sys.argv[2])
        return
    netvane = os.path.abspath(sys.argv[1])
    # Without a terminal: a clear refusal, whatever the machine.
    refused = subprocess.run([netvane, "top", "--history", "/nonexistent/h.plist"], stdin=subprocess.DEVNULL,
                             capture_output=True, text=True, timeout=30)
    if refused.returncode != 1 or "terminal" not in refused.stderr:
        fail(f"top without a terminal: status {refused.returncode}, {refused.stderr!r}")
    for tool in ("tmux", "unshare", "ip"):
        if shutil.which(tool) is None:
            print(f"skipped: {tool} is not installed")
            sys.exit(SKIP)
    # Root makes the namespace directly; anyone else through a user namespace.
    unshare = ["unshare", "--net"] if os.geteuid() == 0 else ["unshare", "--map-root-user", "--net"]
    if subprocess.run(unshare + ["true"], capture_output=True).returncode != 0:
        print("skipped: cannot make a private network namespace here")
        sys.exit(SKIP)
    result = subprocess.run(unshare + [sys.executable, os.path.abspath(__file__), "--inside", netvane], timeout=120)
    sys.exit(result.returncode)


if __name__ == "__main__":
    main()
