#!/usr/bin/env python3
"""What tunnel-owner scans cost the daemon when many users ask at once.

usage: scan_cpu.py NETVANE_ADMIND [--descriptors N] [--users U] [--seconds S]

Runs as root: starts the daemon on directories of its own, has processes
hold N open descriptors (what every scan must walk), and lets U processes of
U different uids ask for tunnel owners as fast as they can, reconnecting
whenever the daemon hangs up. The same run without the descriptors tells
what answering alone costs; the difference is what the scans cost. Prints
one scan's time alone, the calls answered, and the daemon's CPU seconds per
wall-clock second. The target: scan CPU bounded by time (at most a fifth of
one core), whatever the number of callers and users.
"""
import argparse
import fcntl
import os
import plistlib
import resource
import socket
import struct
import subprocess
import sys
import tempfile
import time

FIRST_UID = 61200
TUNSETIFF, IFF_TUN, IFF_NO_PI = 0x400454CA, 0x0001, 0x1000
PRIVATE_NETWORK = "NETVANE_SCAN_CPU_NETNS"


def frame(selector, seq):
    body = plistlib.dumps({"call": selector, "seq": seq, "args": []}, fmt=plistlib.FMT_BINARY)
    return struct.pack(">I", len(body)) + body


def read_frame(s):
    header = b""
    while len(header) < 4:
        chunk = s.recv(4 - len(header))
        if not chunk:
            return None
        header += chunk
    length, body = struct.unpack(">I", header)[0], b""
    while len(body) < length:
        chunk = s.recv(length - len(body))
        if not chunk:
            return None
        body += chunk
    return body


def ask(path, seconds, out):
    """As fast as one client can; writes the number of answers to `out`."""
    answered, end = 0, time.monotonic() + seconds
    while time.monotonic() < end:
        try:
            s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
            s.connect(path)
            seq = 0
            while time.monotonic() < end:
                seq += 1
                s.sendall(frame("tunnelOwnersWithReply:", seq))
                if read_frame(s) is None:
                    break
                answered += 1
            s.close()
        except OSError:
            time.sleep(0.01)
    os.write(out, struct.pack(">I", answered))


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def hold_descriptors(count):
    """Children holding `count` open descriptors in all, until killed; as
    many as the per-process limit asks for."""
    per_child = max(1, resource.getrlimit(resource.RLIMIT_NOFILE)[0] - 64)
    children = []
    first = True
    while count > 0 or first:
        share = min(count, per_child)
        count -= share
        pid = os.fork()
        if pid == 0:
            held = [os.open("/dev/null", os.O_RDONLY) for _ in range(share)]
            if first:  # a tunnel to own, or the scan has nothing to look for
                tun = os.open("/dev/net/tun", os.O_RDWR)
                fcntl.ioctl(tun, TUNSETIFF, struct.pack("16sH", b"nvscan0", IFF_TUN | IFF_NO_PI))
                held.append(tun)
            while held:
                time.sleep(3600)
            os._exit(0)
        children.append(pid)
        first = False
    return children


def measure(admind, descriptors, users, seconds):
    """(one scan alone in s, calls answered, daemon CPU s per wall s)."""
    root = tempfile.mkdtemp(prefix="netvane-scan-cpu-")
    os.chmod(root, 0o755)
    state, runtime = os.path.join(root, "state"), os.path.join(root, "run")
    os.mkdir(state, 0o700)
    os.mkdir(runtime, 0o755)
    log = open(os.path.join(root, "admind.log"), "w")
    daemon = subprocess.Popen([admind, "--state-dir", state, "--runtime-dir", runtime, "--foreground"],
                              stdout=log, stderr=log)
    holders = hold_descriptors(descriptors)
    try:
        path = None
        for _ in range(500):
            names = [n for n in os.listdir(runtime) if n.endswith(".admin")]
            if names:
                path = os.path.join(runtime, names[0])
                break
            time.sleep(0.01)
        time.sleep(1 + descriptors / 100_000)  # the holders have opened theirs
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.connect(path)
        started = time.monotonic()
        s.sendall(frame("tunnelOwnersWithReply:", 1))
        read_frame(s)
        one_scan = time.monotonic() - started
        s.close()
        time.sleep(2)  # past any sharing of that scan

        pipes, children = [], []
        cpu_before, wall_before = cpu_seconds(daemon.pid), time.monotonic()
        for i in range(users):
            r, w = os.pipe()
            pid = os.fork()
            if pid == 0:
                os.close(r)
                os.setgid(FIRST_UID + i)
                os.setuid(FIRST_UID + i)
                ask(path, seconds, w)
                os._exit(0)
            os.close(w)
            pipes.append(r)
            children.append(pid)
        answered = sum(struct.unpack(">I", os.read(r, 4))[0] for r in pipes)
        for pid in children:
            os.waitpid(pid, 0)
        cpu = cpu_seconds(daemon.pid) - cpu_before
        wall = time.monotonic() - wall_before
        return one_scan, answered, cpu / wall
    finally:
        for holder in holders:
            os.kill(holder, 9)
            os.waitpid(holder, 0)
        daemon.kill()
        daemon.wait()
        log.close()
        subprocess.run(["rm", "-rf", root])


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("admind")
    parser.add_argument("--descriptors", type=int, default=200_000)
    parser.add_argument("--users", type=int, default=8)
    parser.add_argument("--seconds", type=float, default=5)
    options = parser.parse_args()
    if os.geteuid() != 0:
        sys.exit("scan_cpu.py needs root: other uids, and a scan that sees every process")
    if os.environ.get(PRIVATE_NETWORK) != "1":
        # The tunnel lives in a network namespace of the bench's own.
        os.environ[PRIVATE_NETWORK] = "1"
        os.execvp("unshare", ["unshare", "--net", sys.executable] + sys.argv)
    print(f"{options.users} users asking for tunnel owners as fast as they can for {options.seconds:.0f} s")
    print(f"{'descriptors':>12}  {'one scan ms':>11}  {'calls':>8}  {'daemon CPU / s':>14}")
    rows = []
    for descriptors in (options.descriptors, 0):
        one_scan, answered, share = measure(options.admind, descriptors, options.users, options.seconds)
        rows.append(share)
        print(f"{descriptors:>12}  {one_scan * 1000:>11.1f}  {answered:>8}  {share:>14.2f}")
    print(f"scans cost {rows[0] - rows[1]:.2f} of one core (target: at most 0.20)")


if __name__ == "__main__":
    main()
