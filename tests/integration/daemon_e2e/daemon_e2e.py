#!/usr/bin/env python3
"""End-to-end test of netvane-admind with real clients, real uids and a real polkitd.

usage: daemon_e2e.py [--sanitized] NETVANE_ADMIND NETVANE POLICY_FILE

--sanitized: the binaries are built with a sanitizer, which holds freed
memory back on purpose; the daemon's memory is then not held to a bound.

Runs as root inside a private mount namespace (it re-executes itself under
`unshare -m`). The `netvane admin` clients run as two throw-away users; the
private polkitd grants the pair right to the first of them only. Exits 77
(skipped) with the reason when the machine cannot host the test.
"""
import json
import os
import plistlib
import signal
import socket
import struct
import sys
import time
import traceback

from environment import SKIP, Environment, Skip, reexec_in_private_mount_namespace, require_machine, wait_until

# The whole run must end well inside CTest's limit, whatever hangs.
DEADLINE_SECONDS = 120
CLIENT_TIMEOUT = 20
# `app pair` sends its await right after the request shows up as pending;
# approving before the await arrives would (correctly) expire it.
AWAIT_SETTLE_SECONDS = 0.5
BAD_FRAMES = 10_000
RSS_GROWTH_LIMIT_KB = 16 * 1024

NOT_PAIRED, UNKNOWN_SERVICE, UNKNOWN_REQUEST, AUTHORIZATION_FAILED, WRONG_USER, CONFIGURATION_FAILED = 1, 2, 3, 4, 5, 6
ADMIN_DOMAIN = "com.tarnwick.Netvane.admin"


class Outcome:
    def __init__(self, rc, stdout, stderr):
        self.rc, self.stderr = rc, stderr.decode(errors="replace").strip()
        text = stdout.decode(errors="replace").strip()
        self.data = json.loads(text) if text else None

    def __repr__(self):
        return f"exit {self.rc}, output {self.data!r}, stderr {self.stderr!r}"


def finish(process):
    try:
        stdout, stderr = process.communicate(timeout=CLIENT_TIMEOUT)
    except Exception:
        process.kill()
        process.communicate()
        raise
    return Outcome(process.returncode, stdout, stderr)


def expect(condition, message, outcome=None):
    if not condition:
        raise AssertionError(message + (f" ({outcome!r})" if outcome is not None else ""))


def expect_ok(outcome, what):
    expect(outcome.rc == 0, f"{what} should succeed", outcome)
    return outcome.data


def expect_error(outcome, code, what):
    error = (outcome.data or {}).get("error", {})
    expect(outcome.rc == 1 and error.get("code") == code and error.get("domain") == ADMIN_DOMAIN,
           f"{what} should fail with code {code}", outcome)


class Test:
    def __init__(self, env, sanitized):
        self.env, self.sanitized = env, sanitized
        self.a, self.b = env.users  # only `a` holds the pair right

    def run(self, user, *args):
        return finish(self.env.start_client(user, *args))

    def pending(self, user):
        listed = expect_ok(self.run(user, "control", "pending"), f"control pending as {user}")
        return [entry["id"] for entry in listed]

    def wait_for_pending(self, user, predicate, what):
        """Polls `user`'s pending request ids until `predicate` holds for them; returns them."""
        seen = []

        def check():
            seen[:] = self.pending(user)
            return predicate(seen)
        wait_until(what, check)
        return seen

    def start_pairing(self, user):
        """Starts `app pair` as `user`; returns the waiting client and its request id."""
        before = set(self.pending(user))
        app = self.env.start_client(user, "app", "pair")
        ids = self.wait_for_pending(user, lambda ids: set(ids) - before, f"{user}'s pairing request")
        (request,) = set(ids) - before
        time.sleep(AWAIT_SETTLE_SECONDS)
        return app, request

    def approve(self, user, app, request):
        """Approves `request` as `user`; returns the token its waiting `app` prints."""
        expect_ok(self.run(user, "control", "approve", request), f"approval by {user}")
        paired = expect_ok(finish(app), "the waiting app")
        expect(paired.get("id") == request and len(paired.get("token", "")) > 0, f"pair output: {paired}")
        return paired["token"]

    def pair(self, user):
        return self.approve(user, *self.start_pairing(user))

    def is_paired(self, user, token):
        status = expect_ok(self.run(user, "app", "status", "--token", token), "app status with a token")
        return status["paired"]

    # -- scenarios ----------------------------------------------------------

    def status_without_token(self):
        status = expect_ok(self.run(self.a, "app", "status"), "app status")
        expect(status == {"version": self.env.version, "protocol": 1, "paired": False},
               f"app status without a token: {status}")
        control = expect_ok(self.run(self.b, "control", "status"), "control status")
        expect(control == {"version": self.env.version, "protocol": 1}, f"control status: {control}")

    def pair_approved_by_same_user(self):
        app, request = self.start_pairing(self.a)
        expect(self.pending(self.b) == [], "another user's requests are invisible")
        self.token = self.approve(self.a, app, request)
        expect(self.pending(self.a) == [], "an approved request is no longer pending")
        expect(self.is_paired(self.a, self.token), "status with the new token says paired")
        expect(not self.is_paired(self.b, self.token), "the token is not paired for another uid")
        expect(not self.is_paired(self.a, "not-a-token"), "an unknown token is not paired")

        path = os.path.join(self.env.state_dir, "pairings.plist")
        expect(os.stat(path).st_mode & 0o777 == 0o600, "the pairing file is private")
        with open(path, "rb") as f:
            raw = f.read()
        stored = plistlib.loads(raw)
        expect([entry["uid"] for entry in stored] == [self.a.uid], f"the pairing file holds A's pairing: {stored}")
        expect(self.token.encode() not in raw, "the token itself is never stored")

    def approval_by_another_user(self):
        self.b_app, self.b_request = self.start_pairing(self.b)
        expect_error(self.run(self.a, "control", "approve", self.b_request), WRONG_USER,
                     "approval of B's request by A")
        expect(self.pending(self.b) == [self.b_request], "the request stays pending after a wrong-user approval")

    def approval_refused_by_authority(self):
        expect_error(self.run(self.b, "control", "approve", self.b_request), AUTHORIZATION_FAILED,
                     "approval by a user without the right")
        expect(self.pending(self.b) == [self.b_request], "the request stays pending after a refused approval")
        expect(self.b_app.poll() is None, "the app keeps waiting")

    def deny(self):
        expect_error(self.run(self.a, "control", "deny", self.b_request), WRONG_USER, "denial by another user")
        expect_ok(self.run(self.b, "control", "deny", self.b_request), "denial by the requesting user")
        expect_error(finish(self.b_app), AUTHORIZATION_FAILED, "the denied app")
        expect(self.pending(self.b) == [], "a denied request is gone")

    def supersede(self):
        first, first_id = self.start_pairing(self.b)
        second, second_id = self.start_pairing(self.b)
        expect_error(finish(first), UNKNOWN_REQUEST, "the superseded waiter")
        expect(self.pending(self.b) == [second_id] and second_id != first_id, "only the newer request is listed")
        second.kill()
        finish(second)
        self.wait_for_pending(self.b, lambda ids: ids == [], "B's request to go with its connection")

    def connection_closed_while_pending(self):
        app, request = self.start_pairing(self.a)
        app.send_signal(signal.SIGKILL)
        finish(app)
        self.wait_for_pending(self.a, lambda ids: ids == [], "the request to go with its connection")
        expect_error(self.run(self.a, "control", "approve", request), UNKNOWN_REQUEST,
                     "approval of a request whose app has gone")

    def set_service(self):
        expect_error(self.run(self.a, "app", "set-service", "eth0", "on", "--token", "not-a-token"), NOT_PAIRED,
                     "set-service with an unpaired token")
        expect_error(self.run(self.b, "app", "set-service", "eth0", "off", "--token", self.token), NOT_PAIRED,
                     "set-service with another user's token")
        env = self.env
        if env.network_manager is None:
            expect_error(self.run(self.a, "app", "set-service", "eth0", "on", "--token", self.token),
                         CONFIGURATION_FAILED, "set-service without NetworkManager")
            return
        env.nmcli("connection", "add", "type", "ethernet", "ifname", "nv0", "con-name", "Lab", "autoconnect", "no",
                  "ipv4.method", "disabled", "ipv6.method", "ignore")
        lab = env.nmcli("-g", "connection.uuid", "connection", "show", "Lab")
        expect_error(self.run(self.a, "app", "set-service", "0" * 8 + "-0000-0000-0000-" + "0" * 12, "on",
                              "--token", self.token), UNKNOWN_SERVICE, "set-service of a profile that does not exist")
        expect_error(self.run(self.a, "app", "set-service", "../Lab", "on", "--token", self.token), UNKNOWN_SERVICE,
                     "set-service of a name that cannot be a service")

        expect_ok(self.run(self.a, "app", "set-service", lab, "on", "--token", self.token), "set-service on")
        expect(env.nmcli("-g", "connection.autoconnect", "connection", "show", lab) == "yes", "the profile is enabled")
        wait_until("the profile to come up",
                   lambda: env.nmcli("-g", "GENERAL.STATE", "connection", "show", lab) == "activated")
        expect_ok(self.run(self.a, "app", "set-service", lab, "off", "--token", self.token), "set-service off")
        expect(env.nmcli("-g", "connection.autoconnect", "connection", "show", lab) == "no", "the profile is disabled")
        wait_until("the profile to go down",
                   lambda: env.nmcli("-g", "GENERAL.STATE", "connection", "show", lab) == "")

        env.stop_network_manager()
        expect_error(self.run(self.a, "app", "set-service", lab, "on", "--token", self.token), CONFIGURATION_FAILED,
                     "set-service with NetworkManager stopped")
        expect(f"could not set service {lab}: NetworkManager is not running" in env.log_tail(),
               "the daemon's log says why the change was refused")

    def bad_input(self):
        app_socket, control_socket = self.env.socket_paths()
        # A peer stuck mid-frame holds nobody else up.
        stuck = connect(app_socket)
        stuck.sendall(struct.pack(">I", 100) + b"bplist00")
        expect(self.is_paired(self.a, self.token), "served while another peer is stuck mid-frame")
        stuck.close()

        frames = bad_frames()
        send_bad_frames(app_socket, control_socket, frames, 100)  # warm-up: thread stacks, arenas
        threads = self.env.daemon_status("Threads")
        rss = self.env.daemon_status("VmRSS")
        send_bad_frames(app_socket, control_socket, frames, BAD_FRAMES)
        wait_until("the bad connections' threads to end", lambda: self.env.daemon_status("Threads") <= threads)
        growth = self.env.daemon_status("VmRSS") - rss
        print(f"     memory grew by {growth} kB over {BAD_FRAMES} bad frames")
        if not self.sanitized:
            expect(growth < RSS_GROWTH_LIMIT_KB, f"memory grew by {growth} kB over {BAD_FRAMES} bad frames")
        expect(self.env.daemon.poll() is None, "the daemon survived the bad frames")
        expect(self.is_paired(self.a, self.token), "no pairing was lost to bad frames")
        expect_ok(self.run(self.b, "control", "status"), "control status after bad frames")

    def unpair(self):
        second = self.pair(self.a)
        expect_ok(self.run(self.b, "app", "unpair", "--token", second), "unpair of another user's token")
        expect(self.is_paired(self.a, second), "another user cannot unpair A's token")
        expect_ok(self.run(self.a, "app", "unpair", "--token", self.token), "unpair")
        expect(not self.is_paired(self.a, self.token), "an unpaired token is no longer paired")
        expect(self.is_paired(self.a, second), "unpair leaves the user's other pairing")
        self.token = second

    def unpair_all(self):
        expect_error(self.run(self.b, "control", "unpair-all"), AUTHORIZATION_FAILED,
                     "unpair-all by a user without the right")
        expect(self.is_paired(self.a, self.token), "a refused unpair-all removes nothing")
        expect_ok(self.run(self.a, "control", "unpair-all"), "unpair-all")
        expect(not self.is_paired(self.a, self.token), "unpair-all removes every pairing")
        with open(os.path.join(self.env.state_dir, "pairings.plist"), "rb") as f:
            expect(plistlib.load(f) == [], "the pairing file is empty after unpair-all")


SCENARIOS = ["status_without_token", "pair_approved_by_same_user", "approval_by_another_user",
             "approval_refused_by_authority", "deny", "supersede", "connection_closed_while_pending",
             "set_service", "bad_input", "unpair", "unpair_all"]


# -- malformed input ------------------------------------------------------

def connect(path):
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.settimeout(10)
    s.connect(path)
    return s


def frame(body):
    return struct.pack(">I", len(body)) + body


def call(selector, args):
    return frame(plistlib.dumps({"call": selector, "seq": 1, "args": args}, fmt=plistlib.FMT_BINARY))


def bad_frames():
    """(bytes, socket index) pairs: each must make the daemon close that connection."""
    app, control = 0, 1
    return [
        (struct.pack(">I", (1 << 20) + 1), app),                        # oversize
        (struct.pack(">I", 0xFFFFFFFF) + b"x" * 64, control),           # oversize, body following
        (struct.pack(">I", 64) + b"bplist00", app),                     # truncated, then end of stream
        (frame(b""), control),                                          # empty body
        (frame(b"this is not a property list"), app),
        (frame(b"bplist00" + b"\xff" * 40), control),                   # corrupt binary plist
        (frame(plistlib.dumps(["call"], fmt=plistlib.FMT_BINARY)), app),  # root not a dictionary
        (call("rmEverythingWithReply:", []), app),                      # unknown selector
        (call("approvePairingWithRequestID:authorization:reply:", [{"value": "X"}, {"value": b"0" * 32}]), app),
        (call("statusWithToken:reply:", [{"value": 42}]), app),         # wrong argument type
        (call("awaitPairingWithRequestID:reply:", []), app),            # missing argument
        (call("denyPairingWithRequestID:reply:", [{}]), control),       # nil where a string is required
        (call("unpairAllWithAuthorization:reply:", [{"value": "not data"}]), control),
        (frame(plistlib.dumps({"seq": 1, "args": []}, fmt=plistlib.FMT_BINARY)), control),  # no selector
    ]


def send_bad_frames(app_socket, control_socket, frames, count):
    paths = (app_socket, control_socket)
    for i in range(count):
        data, which = frames[i % len(frames)]
        s = connect(paths[which])
        try:
            s.sendall(data)
            s.shutdown(socket.SHUT_WR)
            while s.recv(4096):
                pass  # the daemon must end the connection; any reply bytes are ignored
        except (BrokenPipeError, ConnectionResetError):
            pass  # closed before we finished writing: just as good
        finally:
            s.close()


# -- driver -----------------------------------------------------------------

class DeadlineExceeded(Exception):
    """Ends the whole run; scenarios do not catch it."""


def on_deadline(signum, frame):
    raise DeadlineExceeded(f"the test did not finish within {DEADLINE_SECONDS} s")


def main():
    args = sys.argv[1:]
    sanitized = args[:1] == ["--sanitized"]
    if sanitized:
        args = args[1:]
    if len(args) != 3:
        sys.exit(__doc__)
    admind, netvane, policy = args
    try:
        require_machine()
        reexec_in_private_mount_namespace()
    except Skip as reason:
        print(f"SKIP: {reason}")
        return SKIP

    signal.signal(signal.SIGALRM, on_deadline)
    signal.alarm(DEADLINE_SECONDS)
    env = Environment(admind, netvane, policy)
    passed, failures = [], []
    try:
        env.start()
        print(f"users {env.users}, bus {env.bus_address}, daemon {env.version}")
        test = Test(env, sanitized)
        for name in SCENARIOS:
            started = time.monotonic()
            try:
                getattr(test, name)()
                passed.append(name)
                print(f"ok   {name} ({time.monotonic() - started:.1f} s)")
            except DeadlineExceeded:
                raise
            except Exception as failure:  # later scenarios still run, and say what they need
                failures.append(name)
                print(f"FAIL {name}: {failure!r}")
                traceback.print_exc()
    except Exception:  # set-up, or the deadline
        failures.append("run")
        traceback.print_exc()
    finally:
        signal.alarm(0)
        if failures:
            print("daemon log:\n" + env.log_tail())
        env.close()
    print(f"{len(passed)} of {len(SCENARIOS)} scenarios passed" + (f"; failed: {failures}" if failures else ""))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
