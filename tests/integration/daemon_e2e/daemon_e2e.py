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
import random
import re
import signal
import socket
import struct
import subprocess
import sys
import threading
import time
import traceback

from environment import (SKIP, Environment, Skip, User, reexec_in_private_mount_namespace, require_machine,
                         wait_until)

# The whole run must end well inside CTest's limit, whatever hangs.
DEADLINE_SECONDS = 100
# A sanitized daemon runs several times slower (its bad-frame storm alone takes a minute).
SANITIZED_DEADLINE_SECONDS = 220
CLIENT_TIMEOUT = 20
BAD_FRAMES = 10_000
RSS_GROWTH_LIMIT_KB = 16 * 1024
# One user's idle or half-sent connections; more than the daemon serves in all.
FLOOD_CONNECTIONS = 300
FLOOD_RSS_GROWTH_LIMIT_KB = 32 * 1024
# Frames that each decode to about 64 MB if shared objects were expanded freely.
BOMBS = 8
BOMB_PEAK_GROWTH_LIMIT_KB = 96 * 1024
# Calls of one user past its share, pipelined on one connection: a few more
# than the daemon's bursts, each of which then waits its turn (1 s and 2 s).
FLOOD_CALLS = 7
BEGIN_BURST, UNPAIR_BURST, LOG_LINE_BURST = 5, 5, 20
TUNNEL_SCAN_CALLS = 100
# Users of one person, each holding idle connections: together every slot
# that users may hold (256 less root's 16).
MANY_UIDS, CONNECTIONS_PER_UID, FIRST_SPARE_UID = 8, 30, 61100
# Kill -9 during pairings: rounds, and how long pairings run before the kill.
KILL_ROUNDS, KILL_AFTER_SECONDS = 4, (0.2, 0.6)
# Left by "an interrupted save" before the daemon starts; see Environment.
LEFTOVER, NOT_A_LEFTOVER = "pairings.plist.Ab3dE9", "pairings.plist.bak"

NOT_PAIRED, UNKNOWN_SERVICE, UNKNOWN_REQUEST, AUTHORIZATION_FAILED, WRONG_USER, CONFIGURATION_FAILED = 1, 2, 3, 4, 5, 6
ADMIN_DOMAIN = "com.tarnwick.Netvane.admin"
IPC_DOMAIN, DROPPED = "netvane.ipc", 7
LEFTOVER_PATTERN = re.compile(r"^pairings\.plist\.[A-Za-z0-9]{6}$")


class Outcome:
    def __init__(self, rc, stdout, stderr):
        self.rc, self.stderr = rc, stderr.decode(errors="replace").strip()
        text = stdout.decode(errors="replace").strip()
        self.data = json.loads(text) if text else None

    def __repr__(self):
        return f"exit {self.rc}, output {self.data!r}, stderr {self.stderr!r}"


def finish(process, stdin=None):
    try:
        stdout, stderr = process.communicate(input=stdin, timeout=CLIENT_TIMEOUT)
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


def expect_dropped(outcome, what):
    error = (outcome.data or {}).get("error", {})
    expect(outcome.rc == 1 and error.get("domain") == IPC_DOMAIN and error.get("code") == DROPPED,
           f"{what} should be told its call was dropped", outcome)


class Test:
    def __init__(self, env, sanitized):
        self.env, self.sanitized = env, sanitized
        self.a, self.b = env.users  # only `a` holds the pair right

    def run(self, user, *args, runtime=None, stdin=None):
        return finish(self.env.start_client(user, *args, runtime=runtime, stdin=stdin), stdin)

    def pending(self, user, runtime=None):
        listed = expect_ok(self.run(user, "control", "pending", runtime=runtime), f"control pending as {user}")
        return [entry["id"] for entry in listed]

    def wait_for_pending(self, user, predicate, what, runtime=None):
        """Polls `user`'s pending request ids until `predicate` holds for them; returns them."""
        seen = []

        def check():
            seen[:] = self.pending(user, runtime)
            return predicate(seen)
        wait_until(what, check)
        return seen

    def start_pairing(self, user, runtime=None, log=None):
        """Starts `app pair` as `user`; returns the waiting client and its
        request id once the daemon says the request is awaited (an approval
        before that would, correctly, expire it)."""
        before = set(self.pending(user, runtime))
        app = self.env.start_client(user, "app", "pair", runtime=runtime)
        ids = self.wait_for_pending(user, lambda ids: set(ids) - before, f"{user}'s pairing request", runtime)
        (request,) = set(ids) - before
        wait_until(f"the daemon to hold {user}'s await",
                   lambda: self.env.log_lines_with(f"pairing {request} awaited by uid {user.uid}", log))
        return app, request

    def approve(self, user, app, request, runtime=None):
        """Approves `request` as `user`; returns the token its waiting `app` prints."""
        expect_ok(self.run(user, "control", "approve", request, runtime=runtime), f"approval by {user}")
        paired = expect_ok(finish(app), "the waiting app")
        expect(paired.get("id") == request and len(paired.get("token", "")) > 0, f"pair output: {paired}")
        return paired["token"]

    def pair(self, user, runtime=None, log=None):
        app, request = self.start_pairing(user, runtime, log)
        return self.approve(user, app, request, runtime)

    def is_paired(self, user, token, runtime=None):
        # The token travels on standard input, where no other user can read it.
        status = expect_ok(self.run(user, "app", "status", "--token-file", "-", runtime=runtime,
                                    stdin=token.encode() + b"\n"), "app status with a token")
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

    def save_leftovers_removed(self):
        names = os.listdir(self.env.state_dir)
        expect(LEFTOVER not in names, f"a temporary file of an interrupted save survived start-up: {names}")
        expect(NOT_A_LEFTOVER in names, f"start-up removed a file that is not ours: {names}")

    def connection_flood(self):
        """One user opens more connections than the daemon serves, each sending
        only a header that announces a 1 MiB frame: others are still served and
        the daemon does not buy the announced memory."""
        app_socket, control_socket = self.env.socket_paths()
        rss = self.env.daemon_status("VmRSS")
        header = struct.pack(">I", 1 << 20) + b"bplist00"
        crowds = [Crowd(path, self.b, FLOOD_CONNECTIONS, header) for path in (app_socket, control_socket)]
        try:
            time.sleep(0.5)  # for the daemon to take in what it will
            growth = self.env.daemon_status("VmRSS") - rss
            print(f"     memory grew by {growth} kB with {2 * FLOOD_CONNECTIONS} half-sent frames offered")
            expect_ok(self.run(self.a, "app", "status"), "another user's status during the flood")
            expect_ok(self.run(self.a, "control", "status"), "another user's control status during the flood")
            if not self.sanitized:
                expect(growth < FLOOD_RSS_GROWTH_LIMIT_KB, f"memory grew by {growth} kB under the flood")
        finally:
            for crowd in reversed(crowds):  # a later child holds the earlier one's pipe too
                crowd.close()

    def expansion_bombs(self):
        app_socket, _ = self.env.socket_paths()
        rss = self.env.daemon_status("VmRSS")
        self.env.reset_peak_memory()
        bomb = frame(shared_data_plist((1 << 20) - 256, 63))
        crowd = Crowd(app_socket, self.b, BOMBS, bomb)
        try:
            crowd.wait_for_hang_ups()
        finally:
            crowd.close()
        peak = self.env.daemon_status("VmHWM") - rss
        print(f"     peak memory {peak} kB above the resident size before {BOMBS} expansion bombs")
        if not self.sanitized:
            expect(peak < BOMB_PEAK_GROWTH_LIMIT_KB, f"{BOMBS} expansion bombs raised peak memory by {peak} kB")
        expect(self.env.daemon.poll() is None, "the daemon survived the bombs")
        expect_ok(self.run(self.a, "app", "status"), "status after the bombs")

    def call_flood(self):
        """Calls that cost the daemon work, sent as fast as one user can: past
        a few, each waits its turn and is answered, on a connection that stays
        open; another user is not kept waiting, and the log keeps its share."""
        app_socket, _ = self.env.socket_paths()
        # A uid of its own, whose share of the log no other scenario has used.
        flooder = User("flooder", FIRST_SPARE_UID + MANY_UIDS)
        lines_before = self.env.log_lines_with(f"pairing requested by uid {flooder.uid} ")
        for selector, args in (("beginPairingWithReply:", []), ("unpairWithToken:reply:", [{"value": "not-a-token"}])):
            calls = call(selector, args) * FLOOD_CALLS + call("statusWithToken:reply:", [{}])
            flood = Crowd(app_socket, flooder, 1, calls, replies=FLOOD_CALLS + 1)
            try:
                started = time.monotonic()
                expect_ok(self.run(self.a, "app", "status"), f"another user's status during a {selector} flood")
                waited = time.monotonic() - started
                expect(waited < 2, f"another user waited {waited:.1f} s behind a {selector} flood")
                answered = flood.wait_for_replies()
            finally:
                flood.close()
            expect(answered == FLOOD_CALLS + 1, f"{answered} of {FLOOD_CALLS} {selector} calls and a status "
                   "were answered on the flooding connection")
        logged = self.env.log_lines_with(f"pairing requested by uid {flooder.uid} ") - lines_before
        expect(logged <= LOG_LINE_BURST, f"{logged} log lines for one user's begin flood")
        expect(self.env.log_lines_with(f"uid {flooder.uid}'s pairing request waits "),
               "the log says that the flooding user's calls waited their turn")

    def tunnel_scan_flood(self):
        """Every tunnel-owner call is answered with an array, however many come
        at once: scans are shared, never refused."""
        app_socket, _ = self.env.socket_paths()
        crowd = Crowd(app_socket, self.b, 4, call("tunnelOwnersWithReply:", []) * (TUNNEL_SCAN_CALLS // 4),
                      replies=TUNNEL_SCAN_CALLS // 4)
        try:
            answered = crowd.wait_for_replies()
        finally:
            crowd.close()
        expect(answered == TUNNEL_SCAN_CALLS, f"{answered} of {TUNNEL_SCAN_CALLS} tunnel-owner calls were answered")

    def many_uids_hold_every_slot(self):
        """Uids of one person holding every slot users may hold leave room for
        a fresh uid (and root): the oldest idle connection of the heaviest
        makes way."""
        app_socket, _ = self.env.socket_paths()
        crowds = []
        try:
            for i in range(MANY_UIDS):
                spare = User(f"spare{i}", FIRST_SPARE_UID + i)
                crowds.append(Crowd(app_socket, spare, CONNECTIONS_PER_UID, b""))
            time.sleep(0.3)  # for the daemon to take them all in
            expect_ok(self.run(self.a, "app", "status"), "a fresh uid's status while others hold every slot")
            expect_ok(self.run(self.b, "app", "status"), "a second fresh uid's status")
        finally:
            for crowd in reversed(crowds):
                crowd.close()

    def refuses_unsafe_setup(self):
        """A second daemon, set up so that another user could swap its files or
        hand it something that is no listening socket, must refuse to start."""
        loose = self.env._dir("loose", 0o777)
        safe_state, safe_run = self.env._dir("state2", 0o700), self.env._dir("run2", 0o755)
        linked = os.path.join(self.env.root, "linked")
        os.symlink(safe_run, linked)
        app_service = os.path.basename(self.env.socket_paths()[0])
        cases = [
            ("a state directory others may write in", [loose, safe_run], ""),
            ("a runtime directory reached through a symlink", [safe_state, linked], ""),
            ("a handed-over descriptor that is a plain file", [safe_state, safe_run],
             f"exec 3</dev/null; LISTEN_PID=$$ LISTEN_FDS=1 LISTEN_FDNAMES={app_service} "),
        ]
        for what, (state, run), prefix in cases:
            command = f'{prefix}exec "$0" --state-dir "$1" --runtime-dir "$2" --foreground'
            process = subprocess.Popen(["sh", "-c", command, self.env.admind, state, run], env=self.env.env(),
                                       stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
            try:
                _, stderr = process.communicate(timeout=5)
            except subprocess.TimeoutExpired:
                process.kill()
                process.communicate()
                raise AssertionError(f"the daemon started with {what}")
            expect(process.returncode == 1, f"exit {process.returncode} with {what}: {stderr!r}")

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


    # -- faults, each on a daemon of its own ------------------------------

    def _second_daemon(self, name, tmpfs_size=None):
        """A daemon on state and runtime directories of its own; the state on
        a tmpfs of `tmpfs_size` when given."""
        env = self.env
        state, runtime = env._dir(f"{name}-state", 0o700), env._dir(f"{name}-run", 0o755)
        if tmpfs_size:
            env._mount("-t", "tmpfs", "-o", f"size={tmpfs_size},mode=0700", "tmpfs", state)
        log = os.path.join(env.root, f"{name}.log")
        daemon, _ = env.start_daemon(state, runtime, log)
        return daemon, state, runtime, log

    def _failed_approval(self, runtime, log, path, reason, what):
        """An approval whose save fails: the approver hears which file and why,
        the waiting app that it was dropped, and nothing changes on disk."""
        before = open(path, "rb").read()
        app, request = self.start_pairing(self.a, runtime, log)
        refused = self.run(self.a, "control", "approve", request, runtime=runtime)
        message = (refused.data or {}).get("error", {}).get("message", "")
        expect(refused.rc == 1 and path in message and reason in message,
               f"the approver is told which file and why ({what})", refused)
        expect_dropped(finish(app), f"the waiting app ({what})")
        expect(open(path, "rb").read() == before, f"the pairing file is byte-identical ({what})")
        leftovers = [n for n in os.listdir(os.path.dirname(path)) if LEFTOVER_PATTERN.match(n)]
        expect(leftovers == [], f"no temporary file is left ({what}): {leftovers}")
        expect(self.env.log_lines_with(f"uid {self.a.uid}'s approval of {request} was not saved: ", log),
               f"the log says the approval was not saved ({what})")

    def disk_full_and_read_only(self):
        daemon, state, runtime, log = self._second_daemon("full", tmpfs_size="256k")
        path = os.path.join(state, "pairings.plist")
        token = self.pair(self.a, runtime, log)
        filler = os.open(os.path.join(state, "filler"), os.O_WRONLY | os.O_CREAT, 0o600)
        try:
            while True:
                os.write(filler, b"\0" * 65536)
        except OSError:
            pass
        finally:
            os.close(filler)
        self._failed_approval(runtime, log, path, "No space left on device", "disk full")
        os.remove(os.path.join(state, "filler"))
        subprocess.run(["mount", "-o", "remount,ro", state], check=True, timeout=10)
        try:
            self._failed_approval(runtime, log, path, "Read-only file system", "read-only")
        finally:
            subprocess.run(["mount", "-o", "remount,rw", state], check=True, timeout=10)
        expect(self.is_paired(self.a, token, runtime), "the earlier pairing survived both")
        self.pair(self.a, runtime, log)

        # A file the daemon cannot read is kept aside at start, never overwritten.
        daemon.kill()
        daemon.wait()
        with open(path, "wb") as f:
            f.write(b"bplist00 not what it was")
        daemon, _ = self.env.start_daemon(state, runtime, log)
        kept = [n for n in os.listdir(state) if n.startswith("pairings.plist.unreadable-")]
        expect(len(kept) == 1, f"the unreadable file was kept aside: {os.listdir(state)}")
        expect(self.env.log_lines_with(f"kept aside as {kept[0]}, starting with no pairings", log),
               "the log says the file was unreadable and where it went")
        kept_path = os.path.join(state, kept[0])
        expect(os.stat(kept_path).st_mode & 0o777 == 0o600, "the kept file is private")
        self.pair(self.a, runtime, log)
        expect(open(kept_path, "rb").read() == b"bplist00 not what it was", "the next save left the kept file alone")
        daemon.kill()
        daemon.wait()

    def kill_during_pairings(self):
        """Pairings while the daemon is killed with signal 9 now and then: every
        token an app was handed is still paired after the restart, and no
        temporary file survives a start."""
        daemon, state, runtime, log = self._second_daemon("killed")
        tokens, random_delay = [], random.Random(23)
        for _ in range(KILL_ROUNDS):
            stop = threading.Event()

            def pairings():
                while not stop.is_set():
                    try:
                        tokens.append(self.pair(self.a, runtime, log))
                    except Exception:  # the daemon went in the middle: expected
                        return
            worker = threading.Thread(target=pairings)
            worker.start()
            time.sleep(random_delay.uniform(*KILL_AFTER_SECONDS))
            daemon.send_signal(signal.SIGKILL)
            daemon.wait()
            stop.set()
            worker.join()
            daemon, _ = self.env.start_daemon(state, runtime, log)
            leftovers = [n for n in os.listdir(state) if LEFTOVER_PATTERN.match(n)]
            expect(leftovers == [], f"temporary files survived a start: {leftovers}")
        expect(len(tokens) > 0, "no pairing completed between the kills; the loop proves little")
        for token in tokens:
            expect(self.is_paired(self.a, token, runtime), f"a token handed out before a kill -9 was lost")
        print(f"     {len(tokens)} tokens over {KILL_ROUNDS} kills, all still paired")
        daemon.kill()
        daemon.wait()


SCENARIOS = ["status_without_token", "save_leftovers_removed", "pair_approved_by_same_user",
             "approval_by_another_user", "approval_refused_by_authority", "deny", "supersede",
             "connection_closed_while_pending", "set_service", "bad_input", "refuses_unsafe_setup", "unpair",
             "unpair_all",
             "connection_flood", "expansion_bombs", "call_flood", "tunnel_scan_flood", "many_uids_hold_every_slot",
             "disk_full_and_read_only", "kill_during_pairings"]


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


def shared_data_plist(data_bytes, references):
    """A call whose one argument is an array naming one data object
    `references` times: small on the wire, huge if expanded."""
    objects = []

    def ascii(text):
        return bytes([0x50 | len(text)]) + text.encode()
    objects.append(bytes([0xD3, 1, 2, 3, 4, 5, 6]))           # 0: root {call, seq, args}
    objects += [ascii("call"), ascii("seq"), ascii("args"), ascii("statusWithToken:reply:")]
    objects.append(bytes([0x10, 1]))                          # 5: seq
    objects.append(bytes([0xA1, 7]))                          # 6: args [slot]
    objects.append(bytes([0xD1, 8, 9]))                       # 7: slot {value: array}
    objects.append(ascii("value"))                            # 8
    objects.append(bytes([0xAF, 0x10, references]) + bytes([10]) * references)  # 9
    objects.append(bytes([0x4F, 0x12]) + struct.pack(">I", data_bytes) + b"\xab" * data_bytes)  # 10
    out, offsets = bytearray(b"bplist00"), []
    for obj in objects:
        offsets.append(len(out))
        out += obj
    table = len(out)
    for offset in offsets:
        out += struct.pack(">I", offset)
    out += bytes(6) + bytes([4, 1]) + struct.pack(">QQQ", len(objects), 0, table)
    return bytes(out)


class Crowd:
    """`count` connections to `path` held by a child process running as `user`,
    each sent `payload` once, until close(). With `replies`, the child then
    reads that many replies on each connection (wait_for_replies())."""

    def __init__(self, path, user, count, payload, replies=0):
        ready_r, ready_w = os.pipe()
        release_r, release_w = os.pipe()
        self.pid = os.fork()
        if self.pid == 0:
            try:
                os.close(ready_r)
                os.close(release_w)
                become(user)
                held = []
                for _ in range(count):
                    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
                    s.connect(path)
                    try:
                        s.sendall(payload)
                    except OSError:
                        pass  # refused: closed at once
                    held.append(s)
                os.write(ready_w, b"R")
                if replies:
                    answered = sum(read_replies(s, replies) for s in held)
                    os.write(ready_w, b"D" + struct.pack(">I", answered))
                    os.read(release_r, 1)
                elif os.read(release_r, 1) == b"W":  # wait for the daemon to hang up on each
                    for s in held:
                        s.settimeout(CLIENT_TIMEOUT)
                        try:
                            while s.recv(65536):
                                pass
                        except OSError:
                            pass
                    os.write(ready_w, b"D")
                    os.read(release_r, 1)
            finally:
                os._exit(0)
        os.close(ready_w)
        os.close(release_r)
        self.ready, self.release = ready_r, release_w
        expect(os.read(self.ready, 1) == b"R", "the crowd's connections were made")

    def wait_for_hang_ups(self):
        os.write(self.release, b"W")
        expect(os.read(self.ready, 1) == b"D", "the daemon hung up on every connection")

    def wait_for_replies(self):
        """The replies the crowd's connections received in all."""
        done = os.read(self.ready, 5)
        expect(len(done) == 5 and done[:1] == b"D", "the crowd read its replies")
        return struct.unpack(">I", done[1:])[0]

    def close(self):
        os.close(self.release)
        os.waitpid(self.pid, 0)
        os.close(self.ready)


def read_replies(s, count):
    """Reads up to `count` reply frames from `s`; returns how many came."""
    s.settimeout(CLIENT_TIMEOUT)
    received, replies = b"", 0
    try:
        while replies < count:
            chunk = s.recv(65536)
            if not chunk:
                break
            received += chunk
            while len(received) >= 4 and len(received) >= 4 + struct.unpack(">I", received[:4])[0]:
                received = received[4 + struct.unpack(">I", received[:4])[0]:]
                replies += 1
    except OSError:
        pass
    return replies


def become(user):
    os.setgroups([])
    os.setgid(user.gid)
    os.setuid(user.uid)


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


deadline_seconds = DEADLINE_SECONDS


def on_deadline(signum, frame):
    raise DeadlineExceeded(f"the test did not finish within {deadline_seconds} s")


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
    global deadline_seconds
    deadline_seconds = SANITIZED_DEADLINE_SECONDS if sanitized else DEADLINE_SECONDS
    signal.alarm(deadline_seconds)
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
