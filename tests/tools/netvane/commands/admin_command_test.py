#!/usr/bin/env python3
"""`netvane admin` against fake daemons: what it checks before it connects,
when it asks for the right, how long it waits, where the token comes from and
what it prints of the daemon's texts.

usage: admin_command_test.py NETVANE TEAM_ID

The fake daemons listen where the real one would, in a runtime directory of
the test's own; a fake `pkcheck` first on PATH leaves a mark when run. Needs
neither root nor a daemon.
"""
import os
import plistlib
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

CLIENT_TIMEOUT = 20
failures = []


def check(condition, message):
    if not condition:
        failures.append(message)
        print(f"FAIL {message}")


class FakeDaemon:
    """Listens on a service socket; `answer(call)` gives the reply values, or
    None for a peer that never answers. Records every call it reads."""

    def __init__(self, path, answer):
        self.answer, self.calls = answer, []
        self.server = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.server.bind(path)
        self.server.listen(8)
        self.held = []
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            try:
                connection, _ = self.server.accept()
            except OSError:
                return
            self.held.append(connection)
            threading.Thread(target=self.talk, args=(connection,), daemon=True).start()

    def talk(self, connection):
        buffer = b""
        while True:
            try:
                chunk = connection.recv(65536)
            except OSError:
                return
            if not chunk:
                return
            buffer += chunk
            while len(buffer) >= 4 and len(buffer) >= 4 + struct.unpack(">I", buffer[:4])[0]:
                length = struct.unpack(">I", buffer[:4])[0]
                call = plistlib.loads(buffer[4:4 + length])
                buffer = buffer[4 + length:]
                self.calls.append(call)
                values = self.answer(call)
                if values is not None:
                    body = plistlib.dumps({"seq": call["seq"], "reply": values}, fmt=plistlib.FMT_BINARY)
                    connection.sendall(struct.pack(">I", len(body)) + body)

    def close(self):
        self.server.close()
        for connection in self.held:
            connection.close()


def status_answer(call):
    return [{"value": {"version": "1", "protocol": 1, "paired": True}}]


def hostile_tunnels(call):
    owner = {"interface": "tun0", "pid": 7, "name": "Evil\x1b[2J\rroot: forged", "path": "/x/\x07bell"}
    return [{"value": [owner]}]


def run(netvane, runtime, *args, stdin=None, env=None):
    started = time.monotonic()
    done = subprocess.run([netvane, "admin", "--runtime-dir", runtime, *args], input=stdin, capture_output=True,
                          timeout=CLIENT_TIMEOUT, env=env)
    return done.returncode, done.stdout, done.stderr.decode(errors="replace"), time.monotonic() - started


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    netvane, team = sys.argv[1:]
    root = tempfile.mkdtemp(prefix="netvane-admin-command-")
    runtime = os.path.join(root, "run")
    os.mkdir(runtime)
    app_path = os.path.join(runtime, f"{team}.com.tarnwick.Netvane.admin")
    control_path = os.path.join(runtime, f"{team}.com.tarnwick.Netvane.admin-control")
    missing = os.path.join(root, "no-daemon-here")

    # A pkcheck that only says it ran.
    bin_dir = os.path.join(root, "bin")
    os.mkdir(bin_dir)
    mark = os.path.join(root, "pkcheck-ran")
    with open(os.path.join(bin_dir, "pkcheck"), "w") as f:
        f.write(f"#!/bin/sh\ntouch '{mark}'\nexit 0\n")
    os.chmod(os.path.join(bin_dir, "pkcheck"), 0o755)
    env = dict(os.environ, PATH=bin_dir + ":" + os.environ.get("PATH", "/usr/bin:/bin"))

    # Arguments first: a bad request is a usage error whether a daemon runs or not.
    for args in (["app", "fly"], ["control", "approve"], ["app", "unpair"], ["app", "status", "--timeout", "0"],
                 ["app", "status", "--token", "a", "--token-file", "f"], ["app", "pair", "--token", "a"]):
        rc, _, err, _ = run(netvane, missing, *args)
        check(rc == 2, f"{args}: exit {rc}, not the usage status, without a daemon ({err.strip()})")

    # The daemon second, the right third: no password prompt for an unreachable daemon.
    rc, _, err, _ = run(netvane, missing, "control", "approve", "ID", env=env)
    check(rc == 3, f"approve without a daemon: exit {rc} ({err.strip()})")
    check(not os.path.exists(mark), "pkcheck ran although the daemon was unreachable")
    rc, _, err, _ = run(netvane, missing, "control", "unpair-all", env=env)
    check(rc == 3 and not os.path.exists(mark), f"unpair-all without a daemon: exit {rc}, pkcheck ran: "
          f"{os.path.exists(mark)}")

    # A peer that never answers: the reply deadline, with its own status.
    silent = FakeDaemon(app_path, lambda call: None)
    rc, _, err, took = run(netvane, runtime, "--timeout", "0.5", "app", "status")
    check(rc == 4 and took < 5, f"silent daemon: exit {rc} after {took:.1f} s ({err.strip()})")
    check("no reply" in err, f"silent daemon: the message says what happened: {err.strip()}")
    silent.close()
    os.unlink(app_path)

    # A daemon that takes no connection (its queue full) holds nobody for longer either.
    stuck = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    stuck.bind(app_path)
    stuck.listen(0)
    queued = []
    for _ in range(4):
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.setblocking(False)
        try:
            s.connect(app_path)
        except BlockingIOError:
            pass
        queued.append(s)
    rc, _, err, took = run(netvane, runtime, "--timeout", "0.5", "app", "status")
    check(rc == 4 and took < 5, f"a daemon that accepts nothing: exit {rc} after {took:.1f} s ({err.strip()})")
    for s in queued + [stuck]:
        s.close()
    os.unlink(app_path)

    # The token from a file or from standard input, never needed in argv.
    daemon = FakeDaemon(app_path, status_answer)
    token_file = os.path.join(root, "token")
    with open(token_file, "w") as f:
        f.write("T0K3N=\n")
    os.chmod(token_file, 0o600)
    rc, out, err, _ = run(netvane, runtime, "app", "status", "--token-file", token_file)
    check(rc == 0, f"status with --token-file: exit {rc} ({err.strip()})")
    rc, out, err, _ = run(netvane, runtime, "app", "status", "--token-file", "-", stdin=b"T0K3N=\n")
    check(rc == 0, f"status with --token-file -: exit {rc} ({err.strip()})")
    sent = [call["args"] for call in daemon.calls if call["call"] == "statusWithToken:reply:"]
    check(sent == [[{"value": "T0K3N="}]] * 2, f"the daemon received the token as written: {sent}")
    before = len(daemon.calls)
    rc, _, err, _ = run(netvane, runtime, "app", "status", "--token-file", os.path.join(root, "none"))
    check(rc == 1 and "none" in err, f"an unreadable token file: exit {rc} ({err.strip()})")
    rc, _, err, _ = run(netvane, runtime, "app", "status", "--token-file", "-", stdin=b"")
    check(rc == 1, f"an empty standard input: exit {rc} ({err.strip()})")
    check(len(daemon.calls) == before, "the daemon was reached although the token could not be read")
    daemon.close()
    os.unlink(app_path)

    # Other users' text reaches the terminal escaped; --json stays JSON.
    daemon = FakeDaemon(app_path, hostile_tunnels)
    rc, out, err, _ = run(netvane, runtime, "app", "tunnels")
    check(rc == 0, f"tunnels: exit {rc} ({err.strip()})")
    check(b"\x1b" not in out and b"\r" not in out and b"\x07" not in out, f"raw control characters printed: {out!r}")
    check(b"Evil\\x1b[2J\\rroot: forged" in out, f"the name is shown, escaped: {out!r}")
    rc, out, err, _ = run(netvane, runtime, "app", "tunnels", "--json")
    check(rc == 0 and b"\\u001b" in out and b"\x1b" not in out, f"tunnels --json: {out!r}")
    daemon.close()

    rc, out, _, _ = run(netvane, runtime, "--help")
    text = out.decode()
    check("--token-file" in text and "ps" in text and "4 no reply" in text, f"--help says why and the statuses: {text}")

    print(f"{len(failures)} failure(s)")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
