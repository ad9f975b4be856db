"""What the command-line tests share: running netvane, writing history files
the way the recorder does, traffic of a known size on loopback, and a
private network namespace to run a test in."""
import os
import plistlib
import shutil
import socket
import struct
import subprocess
import sys
import threading
import time

SKIP = 77
REFERENCE = 978307200  # 2001-01-01T00:00:00Z in Unix seconds


def netvane_path():
    return os.environ["NETVANE"]


def run(*args, stdin=None, timeout=30, env=None, input=None):
    """netvane with `args`; bytes out, so that invalid text is seen as it is."""
    return subprocess.run([netvane_path(), *args], capture_output=True, timeout=timeout, stdin=stdin, input=input,
                          env=dict(os.environ, **(env or {})))


def packed(buckets):
    """Buckets as the history file packs them: eight little-endian doubles
    each (start, seconds, bytesIn, bytesOut, minIn, maxIn, minOut, maxOut)."""
    return b"".join(struct.pack("<8d", *bucket) for bucket in buckets)


def raw_bucket(end, seconds, bytes_in, bytes_out):
    rate_in, rate_out = bytes_in / seconds, bytes_out / seconds
    return (end, seconds, bytes_in, bytes_out, rate_in, rate_in, rate_out, rate_out)


def history_document(interfaces):
    """{name: [(end, seconds, in, out), ...]} as a file holding one raw tier
    that keeps everything, and no coarser tiers."""
    return plistlib.dumps({
        name: {"tiers": [{"granularity": 0.0, "retention": 1e9,
                          "buckets": packed(raw_bucket(*sample) for sample in samples)}]}
        for name, samples in interfaces.items()}, fmt=plistlib.FMT_BINARY)


def read_history(path):
    with open(path, "rb") as f:
        return plistlib.load(f)


def raw_seconds(history, name):
    """The seconds the raw tier of `name` covers."""
    tier = history[name]["tiers"][0]
    data = tier["buckets"]
    return sum(struct.unpack_from("<8d", data, i)[1] for i in range(0, len(data), 64))


def reference_seconds(iso):
    """Seconds since 2001-01-01 of an ISO 8601 UTC time."""
    import datetime
    when = datetime.datetime.strptime(iso, "%Y-%m-%dT%H:%M:%SZ").replace(tzinfo=datetime.timezone.utc)
    return when.timestamp() - REFERENCE


class Traffic(threading.Thread):
    """UDP datagrams on loopback, so that every reading has a rate."""

    def __init__(self, per_second=200, size=1000):
        super().__init__(daemon=True)
        self.per_second, self.size = per_second, size
        self.stop = threading.Event()

    def run(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as receiver, \
                socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
            receiver.bind(("127.0.0.1", 0))
            receiver.setblocking(False)
            payload = b"x" * self.size
            while not self.stop.is_set():
                sender.sendto(payload, receiver.getsockname())
                try:
                    while True:
                        receiver.recv(self.size)
                except BlockingIOError:
                    pass
                time.sleep(1 / self.per_second)

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *exc):
        self.stop.set()
        self.join()


def in_private_network(script, netvane, extra=()):
    """Runs `script` again inside a private network namespace whose loopback
    is up, with NETVANE set; exits 77 where no namespace can be made. Returns
    True in the namespace, where the caller goes on with its tests."""
    if os.environ.get("NETVANE_TEST_INSIDE") == "1":
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        return True
    os.environ["NETVANE"] = os.path.abspath(netvane)
    if shutil.which("unshare") is None or shutil.which("ip") is None:
        print("skipped: unshare or ip is not installed")
        sys.exit(SKIP)
    unshare = ["unshare", "--net"] if os.geteuid() == 0 else ["unshare", "--map-root-user", "--net"]
    if subprocess.run(unshare + ["true"], capture_output=True).returncode != 0:
        print("skipped: cannot make a private network namespace here")
        sys.exit(SKIP)
    env = dict(os.environ, NETVANE_TEST_INSIDE="1")
    result = subprocess.run(unshare + [sys.executable, os.path.abspath(script), *extra], env=env)
    sys.exit(result.returncode)


def wait_for_lines(stream, count, timeout):
    """Reads `count` lines of a child's output, or fails after `timeout`."""
    lines, deadline = [], time.monotonic() + timeout
    while len(lines) < count:
        if time.monotonic() > deadline:
            raise AssertionError(f"only {len(lines)} of {count} lines in {timeout} s: {lines!r}")
        line = stream.readline()
        if not line:
            raise AssertionError(f"the output ended after {len(lines)} lines: {lines!r}")
        lines.append(line)
    return lines
