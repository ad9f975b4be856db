#!/usr/bin/env python3
"""The packaged service run by a real systemd.

usage: service_boot_test.py BUILD_DIR

Installs the `netvane` package into a throwaway root (this machine's root
under an overlay), boots systemd there as a container (boot_container.sh),
and talks to the admin helper through the sockets that the package enabled:
systemd starts the daemon on the first connection, inside its sandbox. The
daemon must then answer, pair (polkit on the container's bus, the pairing
file in its state directory), name the owner of a tun interface held by
another user, and log its start once.
Needs root; exits 77 (skipped) with the reason otherwise.
"""
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent / "integration/daemon_e2e")]
from environment import SKIP, Skip, reexec_in_private_mount_namespace, wait_until  # noqa: E402
from packaging_support import ThrowawayRoot, build_packages, remove_unmounted, run  # noqa: E402

BUILD = Path(sys.argv[1]) if len(sys.argv) == 2 else None
BOOT_TIMEOUT = 60
# What the unit grants: CAP_DAC_READ_SEARCH (2), CAP_NET_ADMIN (12),
# CAP_SYS_PTRACE (19), as /proc/PID/status shows a capability set.
UNIT_CAPABILITIES = f"{(1 << 2) | (1 << 12) | (1 << 19):016x}"
# A target of our own: the sockets and what they need, without the services
# this machine happens to enable for itself.
TEST_TARGET = """[Unit]
Description=Netvane service test
Requires=sockets.target basic.target
After=sockets.target basic.target
AllowIsolate=yes
"""
HOLDER = """
import fcntl, os, struct, time
fd = os.open("/dev/net/tun", os.O_RDWR)
fcntl.ioctl(fd, 0x400454ca, struct.pack("16sH", b"nvboot0", 0x0001 | 0x1000))  # TUNSETIFF, IFF_TUN|IFF_NO_PI
print("held", flush=True)
time.sleep(120)
"""


class Container:
    def __init__(self, work):
        self.root = ThrowawayRoot(work)
        self.process = None
        self.pid1 = None

    def install(self, debs):
        shutil.copy(debs["netvane"], self.root.path("tmp"))
        self.root.chroot("dpkg", "-i", Path("/tmp", debs["netvane"].name))
        self.root.path("etc/systemd/system/netvane-test.target").write_text(TEST_TARGET)

    def boot(self):
        self.log = self.root.root.parent / "boot.log"
        with open(self.log, "w") as log:
            # The container dies with this process, whatever ends it.
            self.process = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", HERE / "boot_container.sh",
                                             self.root.root, "--unit=netvane-test.target"],
                                            stdout=log, stderr=subprocess.STDOUT)

        def pid1():
            # setpriv and the script become unshare, whose child is PID 1.
            if self.process.poll() is not None:
                raise RuntimeError("boot_container.sh ended")
            if Path(f"/proc/{self.process.pid}/comm").read_text().strip() != "unshare":
                return None
            children = self.children(self.process.pid)
            return children[0] if children else None

        try:
            self.pid1 = wait_until("the container's PID 1", pid1, timeout=BOOT_TIMEOUT)
            wait_until("the container's boot", lambda: self.process.poll() is None and self.inside(
                "systemctl", "is-system-running", check=False).stdout.strip() in ("running", "degraded"),
                timeout=BOOT_TIMEOUT, interval=0.2)
        except (TimeoutError, RuntimeError) as error:
            raise RuntimeError(f"{error}; boot_container.sh said:\n{self.log.read_text(errors='replace')}") from None

    @staticmethod
    def children(pid):
        try:
            return [int(c) for c in Path(f"/proc/{pid}/task/{pid}/children").read_text().split()]
        except FileNotFoundError:
            return []

    def enter(self, *command):
        return ["nsenter", "-t", self.pid1, "-m", "-u", "-i", "-n", "-p", "-r", "-w", "env", "-i",
                "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LANG=C", *command]

    def inside(self, *command, check=True, timeout=60):
        return run(self.enter(*command), check=check, timeout=timeout)

    def spawn(self, *command):
        # A session of its own: nsenter forks the command into the container,
        # and stopping it means stopping both.
        return subprocess.Popen([str(part) for part in self.enter(*command)], stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True, start_new_session=True)

    @staticmethod
    def stop(process):
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        return process.communicate(timeout=30)

    def close(self):
        if self.process is not None:
            if self.pid1 is not None:
                os.kill(self.pid1, signal.SIGRTMIN + 4)  # systemd: power off
            try:
                self.process.wait(timeout=30)
            except subprocess.TimeoutExpired:
                self.process.kill()  # and with unshare, the whole container
                self.process.wait(timeout=30)
            remove_control_groups(f"netvane-boot-{self.process.pid}")
        self.root.close()


def remove_control_groups(name):
    """The groups boot_container.sh made below ours, once their processes are gone."""
    for line in Path("/proc/self/cgroup").read_text().splitlines():
        _, controllers, path = line.split(":", 2)
        hierarchy = {"": "unified", "name=systemd": "systemd"}.get(controllers, controllers.split(",")[0])
        top = Path("/sys/fs/cgroup", hierarchy, path.lstrip("/"), name)
        deadline = time.monotonic() + 10
        while top.exists():
            for group in sorted((p for p in top.rglob("*") if p.is_dir()), key=lambda p: -len(p.parts)) + [top]:
                try:
                    group.rmdir()
                except OSError:
                    pass  # processes still leaving; the next round takes it
            if time.monotonic() > deadline:
                raise RuntimeError(f"cannot remove the control group {top}")
            time.sleep(0.1)


WORK = Path()
CONTAINER = None


def setUpModule():
    global WORK, CONTAINER
    WORK = Path(tempfile.mkdtemp(prefix="netvane-boot-"))
    debs = build_packages(BUILD, WORK / "out")
    CONTAINER = Container(WORK)
    try:
        CONTAINER.install(debs)
        CONTAINER.boot()
    except BaseException:
        CONTAINER.close()
        raise


def tearDownModule():
    if CONTAINER is not None:
        CONTAINER.close()
    remove_unmounted(WORK)


def admin(*arguments, check=True):
    result = CONTAINER.inside("netvane", "admin", *arguments, "--json", check=check)
    return json.loads(result.stdout) if result.stdout.strip() else None


class PackagedService(unittest.TestCase):
    def test_first_connection_starts_the_daemon_in_its_sandbox(self):
        status = admin("app", "status")
        self.assertIsInstance(status, dict)
        self.assertEqual(CONTAINER.inside("systemctl", "is-active", "netvane-admind.service").stdout.strip(), "active")
        pid = CONTAINER.inside("systemctl", "show", "--property=MainPID", "--value", "netvane-admind.service").stdout.strip()
        fields = dict(line.split(":\t", 1) for line in CONTAINER.inside("cat", f"/proc/{pid}/status").stdout.splitlines()
                      if ":\t" in line)
        self.assertEqual(fields["CapBnd"], UNIT_CAPABILITIES)
        self.assertEqual(fields["Seccomp"], "2")
        self.assertEqual(fields["NoNewPrivs"], "1")
        self.assertEqual(fields["Uid"].split()[0], "0")

    def test_pairing_is_approved_and_saved(self):
        pairing = CONTAINER.spawn("netvane", "admin", "app", "pair", "--json")
        try:
            pending = wait_until("the pending request", lambda: admin("control", "pending"), timeout=20)
            self.assertEqual(admin("control", "approve", pending[0]["id"], check=False), {"ok": True})
            out, err = pairing.communicate(timeout=20)
        finally:
            if pairing.returncode is None:
                CONTAINER.stop(pairing)
        self.assertEqual(pairing.returncode, 0, err)
        token = json.loads(out)["token"]
        status = admin("app", "status", "--token", token)
        self.assertIn(True, status.values(), status)
        saved = CONTAINER.root.path("var/lib/netvane-admin/pairings.plist").stat()
        self.assertEqual((saved.st_mode & 0o7777, saved.st_uid, saved.st_gid), (0o600, 0, 0))
        self.assertEqual(admin("app", "unpair", "--token", token), {"ok": True})

    def test_tunnel_owner_of_another_user_is_named(self):
        CONTAINER.inside("ip", "tuntap", "add", "dev", "nvboot0", "mode", "tun", "user", "65534")
        holder = CONTAINER.spawn("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "python3", "-c", HOLDER)
        try:
            self.assertEqual(holder.stdout.readline().strip(), "held")
            owners = admin("app", "tunnels")
        finally:
            CONTAINER.stop(holder)
        self.assertEqual([owner["interface"] for owner in owners], ["nvboot0"])
        self.assertEqual(owners[0]["path"].rsplit("/", 1)[-1].split(".")[0], "python3")

    def test_start_is_logged_once_in_the_journal(self):
        admin("app", "status")
        # Everything of the unit: the syslog lines and whatever reached stderr.
        lines = CONTAINER.inside("journalctl", "--no-pager", "-o", "with-unit", "-u", "netvane-admind.service").stdout
        started = [line for line in lines.splitlines() if "admin daemon" in line and line.endswith(" listening")]
        self.assertEqual(len(started), 1, lines)


if __name__ == "__main__":
    if BUILD is None:
        sys.exit(__doc__)
    try:
        if os.geteuid() != 0:
            raise Skip("needs root: namespaces, an overlay root and a booted systemd")
        for tool in ("cpack", "dpkg-shlibdeps", "unshare", "nsenter", "setpriv", "chroot"):
            if shutil.which(tool) is None:
                raise Skip(f"{tool} is not installed")
        if not Path("/lib/systemd/systemd").exists():
            raise Skip("systemd is not installed")
        reexec_in_private_mount_namespace()
    except Skip as reason:
        print(f"SKIP: {reason}")
        sys.exit(SKIP)
    unittest.main(argv=sys.argv[:1], verbosity=2)
