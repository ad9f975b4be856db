"""The private world the daemon end-to-end test runs in.

Everything lives in a mount namespace of its own and a temporary directory:
two test users exist only in bind-mounted copies of /etc/passwd and
/etc/group, a private system bus carries a real polkitd that sees only our
action and our rule, and a real netvane-admind serves sockets in a
world-reachable runtime directory. A real NetworkManager joins the bus after
the daemon started, from a network namespace of its own (the sandbox script
keeps it off the host). Every process started here is owned by an
`Environment` and killed by `close()`; the mounts vanish with the namespace.
"""
import os
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import time

SKIP = 77
NAMESPACE_MARK = "NETVANE_E2E_PRIVATE_MOUNTS"
POLKITD = "/usr/lib/polkit-1/polkitd"
NETWORK_MANAGER = "/usr/sbin/NetworkManager"
SUPPORT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support")
PRIVATE_BUS = os.path.join(SUPPORT, "private-system-bus.sh")
NM_SANDBOX = os.path.join(SUPPORT, "network-manager-sandbox.sh")
NM_DEVICE = "nv0"
POLKIT_NAME = "org.freedesktop.PolicyKit1"
PAIR_ACTION = "com.tarnwick.Netvane.admin.pair"
USER_NAMES = ("nvtest-a", "nvtest-b")
FIRST_TEST_ID = 61000

# The right goes to the first test user only; everybody else is refused
# outright, so no answer ever depends on an authentication agent.
PAIR_RULE = """polkit.addRule(function(action, subject) {{
    if (action.id == "{action}") {{
        return subject.user == "{user}" ? polkit.Result.YES : polkit.Result.NO;
    }}
}});
"""


class Skip(Exception):
    """The machine cannot run the test; the message says why."""


class User:
    def __init__(self, name, uid):
        self.name, self.uid, self.gid = name, uid, uid

    def __repr__(self):
        return f"{self.name}({self.uid})"


def require_machine():
    if os.geteuid() != 0:
        raise Skip("needs root: mounts, a private polkitd and clients under other uids")
    for tool in ("unshare", "mount", "umount", "dbus-daemon", "dbus-send", "pkcheck"):
        if shutil.which(tool) is None:
            raise Skip(f"{tool} is not installed")
    if not os.access(POLKITD, os.X_OK):
        raise Skip(f"{POLKITD} is not installed")


def reexec_in_private_mount_namespace():
    """Runs this script again inside `unshare -m`, unless it already is."""
    if os.environ.get(NAMESPACE_MARK) == "1":
        return
    probe = subprocess.run(["unshare", "-m", "--propagation", "private", "true"],
                           capture_output=True, text=True, timeout=10)
    if probe.returncode != 0:
        raise Skip("cannot create a mount namespace: " + probe.stderr.strip())
    env = dict(os.environ, **{NAMESPACE_MARK: "1"})
    command = ["unshare", "-m", "--propagation", "private", sys.executable] + sys.argv
    os.execvpe("unshare", command, env)


def wait_until(what, predicate, timeout=10.0, interval=0.05):
    """Polls `predicate` until it returns something truthy; raises on timeout."""
    deadline = time.monotonic() + timeout
    while True:
        value = predicate()
        if value:
            return value
        if time.monotonic() > deadline:
            raise TimeoutError(f"timed out waiting for {what}")
        time.sleep(interval)


def read_line(stream, timeout):
    deadline = time.monotonic() + timeout
    line = b""
    while not line.endswith(b"\n"):
        remaining = deadline - time.monotonic()
        if remaining <= 0 or not select.select([stream], [], [], remaining)[0]:
            raise TimeoutError("timed out reading a line")
        chunk = os.read(stream.fileno(), 1)
        if not chunk:
            break
        line += chunk
    return line.decode().strip()


def free_ids(count):
    """`count` numbers used neither as a uid nor as a gid on this machine."""
    taken = set()
    for path in ("/etc/passwd", "/etc/group"):
        with open(path) as f:
            for line in f:
                fields = line.split(":")
                if len(fields) > 2 and fields[2].isdigit():
                    taken.add(int(fields[2]))
    found, candidate = [], FIRST_TEST_ID
    while len(found) < count:
        if candidate not in taken:
            found.append(candidate)
        candidate += 1
    return found


class Environment:
    def __init__(self, admind, netvane, policy_file):
        self.admind, self.netvane, self.policy_file = admind, netvane, policy_file
        self.processes = []  # everything we started, killed in reverse
        self.mounts = []
        self.root = tempfile.mkdtemp(prefix="netvane-e2e-")
        os.chmod(self.root, 0o755)
        self.state_dir = os.path.join(self.root, "state")
        self.runtime_dir = os.path.join(self.root, "run")
        self.daemon = None
        self.network_manager = None  # stays None where NetworkManager is not installed
        self.bus_address = None
        self.users = []

    # -- set-up -------------------------------------------------------------

    def start(self):
        self._add_users()
        self._start_bus()
        self._start_polkitd()
        self._start_daemon()
        # After the daemon: it must find a NetworkManager that came later.
        self._start_network_manager()

    def _dir(self, name, mode=0o755):
        path = os.path.join(self.root, name)
        os.makedirs(path, exist_ok=True)
        os.chmod(path, mode)
        return path

    def _mount(self, *args):
        target = args[-1]
        subprocess.run(["mount", *args], check=True, timeout=10)
        self.mounts.append(target)

    def _add_users(self):
        ids = free_ids(len(USER_NAMES))
        self.users = [User(name, uid) for name, uid in zip(USER_NAMES, ids)]
        etc = self._dir("etc")
        for name, line in (("passwd", "{n}:x:{u}:{u}:netvane test:/nonexistent:/usr/sbin/nologin\n"),
                           ("group", "{n}:x:{u}:\n")):
            copy = os.path.join(etc, name)
            with open(f"/etc/{name}") as original, open(copy, "w") as f:
                text = original.read()
                f.write(text if text.endswith("\n") or not text else text + "\n")
                for user in self.users:
                    f.write(line.format(n=user.name, u=user.uid))
            os.chmod(copy, 0o644)
            self._mount("--bind", copy, f"/etc/{name}")

    def _start_bus(self):
        socket_path = os.path.join(self._dir("bus"), "system_bus_socket")
        # The bus stays our child, so cleanup can always reach it.
        with open(os.path.join(self.root, "dbus-daemon.log"), "w") as log:
            bus = self._spawn([PRIVATE_BUS, socket_path], stdout=subprocess.PIPE, stderr=log)
        self.bus_address = read_line(bus.stdout, timeout=10)
        if not self.bus_address.startswith("unix:"):
            raise RuntimeError("dbus-daemon printed no address: " + self.bus_address)

    def _start_polkitd(self):
        actions = self._dir("polkit-actions")
        shutil.copy(self.policy_file, os.path.join(actions, os.path.basename(self.policy_file)))
        os.chmod(os.path.join(actions, os.path.basename(self.policy_file)), 0o644)
        rules = self._dir("polkit-rules")
        rule_file = os.path.join(rules, "10-netvane-test.rules")
        with open(rule_file, "w") as f:
            f.write(PAIR_RULE.format(action=PAIR_ACTION, user=self.users[0].name))
        os.chmod(rule_file, 0o644)
        self._mount("--bind", actions, "/usr/share/polkit-1/actions")
        self._mount("--bind", rules, "/etc/polkit-1/rules.d")
        self._mount("-t", "tmpfs", "-o", "mode=0755", "tmpfs", "/usr/share/polkit-1/rules.d")
        with open(os.path.join(self.root, "polkitd.log"), "w") as log:
            self._spawn([POLKITD, "--no-debug"], stdout=log, stderr=log)
        wait_until("polkitd on the private bus", self._polkit_owns_name)

    def _polkit_owns_name(self):
        answer = subprocess.run(
            ["dbus-send", f"--bus={self.bus_address}", "--print-reply", "--dest=org.freedesktop.DBus",
             "/org/freedesktop/DBus", "org.freedesktop.DBus.NameHasOwner", f"string:{POLKIT_NAME}"],
            capture_output=True, text=True, timeout=5)
        return answer.returncode == 0 and "boolean true" in answer.stdout

    def _start_daemon(self):
        os.makedirs(self.runtime_dir, mode=0o755)
        # What a save killed half-way leaves behind, beside a file that only
        # looks alike: start-up must remove the first and keep the second.
        os.makedirs(self.state_dir, mode=0o700)
        for name in ("pairings.plist.Ab3dE9", "pairings.plist.bak"):
            with open(os.path.join(self.state_dir, name), "wb") as f:
                f.write(b"bplist00 partial")
        self.daemon_log = os.path.join(self.root, "admind.log")
        self.daemon, self.version = self.start_daemon(self.state_dir, self.runtime_dir, self.daemon_log)

    def start_daemon(self, state_dir, runtime_dir, log_path):
        """Another netvane-admind (or this one again) on these directories,
        logging to the end of `log_path`; returns it and its version once it
        listens."""
        lines_before = self.log_lines_with("listening", log_path)
        with open(log_path, "a") as log:
            daemon = self._spawn([self.admind, "--state-dir", state_dir, "--runtime-dir", runtime_dir,
                                  "--foreground"], stdout=log, stderr=log)

        def started():
            if daemon.poll() is not None:
                raise RuntimeError(f"netvane-admind exited with {daemon.returncode}: {self.log_tail(path=log_path)}")
            with open(log_path, errors="replace") as f:
                starts = [line.split() for line in f if "listening" in line.split() and "daemon" in line.split()]
            if len(starts) > lines_before:
                words = starts[-1]
                return words[words.index("daemon") + 1]
            return None
        return daemon, wait_until("the daemon's start line", started)

    def _start_network_manager(self):
        if not os.access(NETWORK_MANAGER, os.X_OK) or shutil.which("nmcli") is None:
            print("note: NetworkManager is not installed; service switching is tested without it")
            return
        work = self._dir("network-manager", 0o700)
        with open(os.path.join(self.root, "NetworkManager.log"), "w") as log:
            self.network_manager = self._spawn(
                [NM_SANDBOX, work, "--new-network-namespace", "--veth", NM_DEVICE], stdout=log, stderr=log)
        wait_until("NetworkManager on the private bus", self._network_manager_started, timeout=20)

    def _network_manager_started(self):
        if self.network_manager.poll() is not None:
            raise RuntimeError(f"NetworkManager exited with {self.network_manager.returncode}")
        answer = subprocess.run(
            ["dbus-send", f"--bus={self.bus_address}", "--print-reply", "--dest=org.freedesktop.NetworkManager",
             "/org/freedesktop/NetworkManager", "org.freedesktop.DBus.Properties.Get",
             "string:org.freedesktop.NetworkManager", "string:Startup"],
            capture_output=True, text=True, timeout=5)
        return answer.returncode == 0 and "boolean false" in answer.stdout

    def stop_network_manager(self):
        self.network_manager.terminate()
        self.network_manager.wait(timeout=10)

    def nmcli(self, *args):
        """NetworkManager's own client on the private bus; its output, stripped."""
        answer = subprocess.run(["nmcli", *args], env=self.env(), capture_output=True, text=True, timeout=20)
        if answer.returncode != 0:
            raise RuntimeError(f"nmcli {' '.join(args)}: {answer.stderr.strip()}")
        return answer.stdout.strip()

    def _spawn(self, argv, **kwargs):
        process = subprocess.Popen(argv, env=self.env(), cwd="/", **kwargs)
        self.processes.append(process)
        return process

    # -- use ----------------------------------------------------------------

    def env(self):
        env = {"PATH": os.environ.get("PATH", "/usr/bin:/bin"), "LANG": "C.UTF-8"}
        if self.bus_address:
            env["DBUS_SYSTEM_BUS_ADDRESS"] = self.bus_address
        for name, value in os.environ.items():
            if name.endswith("SAN_OPTIONS"):
                env[name] = value
        return env

    def start_client(self, user, *args, runtime=None, stdin=None):
        """`netvane admin --runtime-dir R ARGS --json` as `user` (fork, setuid), not waited for."""
        return self._spawn([self.netvane, "admin", "--runtime-dir", runtime or self.runtime_dir, *args, "--json"],
                           user=user.uid, group=user.gid, extra_groups=[],
                           stdin=subprocess.PIPE if stdin is not None else None,
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def socket_paths(self):
        """The application and the control service sockets, in that order."""
        names = sorted(os.listdir(self.runtime_dir))
        app = [n for n in names if n.endswith(".admin")]
        control = [n for n in names if n.endswith(".admin-control")]
        if len(app) != 1 or len(control) != 1:
            raise RuntimeError(f"unexpected sockets in the runtime directory: {names}")
        return os.path.join(self.runtime_dir, app[0]), os.path.join(self.runtime_dir, control[0])

    def daemon_status(self, field):
        """A number from /proc/<daemon>/status, e.g. Threads or VmRSS (kB)."""
        with open(f"/proc/{self.daemon.pid}/status") as f:
            for line in f:
                if line.startswith(field + ":"):
                    return int(line.split()[1])
        raise RuntimeError(f"no {field} for the daemon")

    def reset_peak_memory(self):
        """Starts the daemon's VmHWM afresh from its current resident size."""
        with open(f"/proc/{self.daemon.pid}/clear_refs", "w") as f:
            f.write("5")

    def log_lines_with(self, text, path=None):
        try:
            with open(path or self.daemon_log, errors="replace") as f:
                return sum(1 for line in f if text in line)
        except FileNotFoundError:
            return 0

    def log_tail(self, lines=20, path=None):
        try:
            with open(path or self.daemon_log, errors="replace") as f:
                return "".join(f.readlines()[-lines:])
        except OSError:
            return ""

    # -- tear-down ----------------------------------------------------------

    def close(self):
        for process in reversed(self.processes):
            if process.poll() is None:
                process.send_signal(signal.SIGKILL)
            try:
                process.wait(timeout=10)
            except subprocess.TimeoutExpired:
                print(f"warning: process {process.pid} did not end", file=sys.stderr)
            for stream in (process.stdout, process.stderr):
                if stream:
                    stream.close()
        for target in reversed(self.mounts):
            subprocess.run(["umount", target], timeout=10)
        shutil.rmtree(self.root, ignore_errors=True)
