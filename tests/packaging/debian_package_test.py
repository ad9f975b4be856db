#!/usr/bin/env python3
"""The Debian packages: built by cpack from BUILD_DIR, then installed,
upgraded, removed and purged with dpkg in a throwaway root.

usage: debian_package_test.py BUILD_DIR

The throwaway root is this machine's own root under a writable overlay, in a
private mount namespace: dpkg finds the dependencies that are installed here,
and whatever the packages and their maintainer scripts do lands in the
overlay, which vanishes with the namespace. systemd does not run there, as in
any chroot: the scripts must only record that the sockets are enabled.
The throwaway root needs root; without it only the packages are checked.
"""
import os
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path[:0] = [str(HERE), str(HERE.parent / "integration/daemon_e2e")]
from environment import SKIP, Skip, reexec_in_private_mount_namespace  # noqa: E402
from packaging_support import ThrowawayRoot, build_packages, remove_unmounted, run  # noqa: E402

BUILD = Path(sys.argv[1]) if len(sys.argv) == 2 else None
SOCKETS = ("netvane-admind-app.socket", "netvane-admind-control.socket")
STATE = "var/lib/netvane-admin"


def field(deb, name):
    return run(["dpkg-deb", "--field", deb, name]).stdout.strip()


WORK = Path()
DEBS = {}


def setUpModule():
    global WORK
    WORK = Path(tempfile.mkdtemp(prefix="netvane-deb-"))
    DEBS.update(build_packages(BUILD, WORK / "out"))


def tearDownModule():
    remove_unmounted(WORK)


class Packages(unittest.TestCase):
    def setUp(self):
        self.runtime, self.development = DEBS["netvane"], DEBS["libnetcore-dev"]

    def contents(self, deb):
        """Path to (mode text, owner) for every entry of the data archive."""
        entries = {}
        for line in run(["dpkg-deb", "--contents", deb]).stdout.splitlines():
            mode, owner, _size, _date, _time, path, *_ = line.split()
            entries[path.removeprefix(".")] = (mode, owner)
        return entries

    def test_control_fields(self):
        self.assertEqual(field(self.runtime, "Package"), "netvane")
        depends = field(self.runtime, "Depends")
        for package in ("dbus", "polkitd", "libc6", "libsystemd0"):
            self.assertIn(package, depends)
        self.assertEqual(field(self.runtime, "Recommends"), "network-manager")
        development = field(self.development, "Depends")
        self.assertIn("libssl-dev", development)
        # The archive loads the bus library at run time and needs only its
        # header at build time, which the package does not ship.
        self.assertIn("libsystemd0", development)
        self.assertNotIn("libsystemd-dev", development)
        for deb in (self.runtime, self.development):
            self.assertTrue(field(deb, "Maintainer"))
            self.assertEqual(field(deb, "Version"), field(self.runtime, "Version"))
        scripts = run(["dpkg-deb", "--info", self.runtime]).stdout
        for script in ("postinst", "prerm", "postrm"):
            self.assertIn(script, scripts)

    def test_contents_belong_to_root_and_live_under_usr(self):
        for deb in (self.runtime, self.development):
            for path, (mode, owner) in self.contents(deb).items():
                with self.subTest(package=deb.name, path=path):
                    self.assertEqual(owner, "root/root")
                    self.assertTrue(path.startswith("/usr/") or path in ("/", "/usr"), "outside /usr")
                    self.assertNotIn("w", mode[5::3], "group or world writable")
                    self.assertFalse(set(mode) & set("sS"), "set-id")
        runtime = self.contents(self.runtime)
        self.assertEqual(runtime["/usr/sbin/netvane-admind"][0], "-rwxr-xr-x")
        self.assertIn("/usr/lib/systemd/system/netvane-admind.service", runtime)
        self.assertIn("/usr/share/polkit-1/actions/com.tarnwick.Netvane.admin.policy", runtime)
        self.assertFalse([path for path in runtime if path.startswith("/usr/include")])
        self.assertTrue([path for path in self.contents(self.development) if path.endswith("/libnetcore.a")])


@unittest.skipUnless(os.geteuid() == 0, "needs root: a mount namespace and dpkg in a throwaway root")
class InstallAndPurge(unittest.TestCase):
    def test_install_upgrade_remove_and_purge(self):
        root = ThrowawayRoot(WORK)
        self.addCleanup(root.close)
        for deb in DEBS.values():
            shutil.copy(deb, root.path("tmp"))
        runtime_deb, development_deb = (Path("/tmp", DEBS[name].name) for name in ("netvane", "libnetcore-dev"))
        accounts = {name: root.path(f"etc/{name}").read_text() for name in ("passwd", "group", "shadow")}
        wants = root.path("etc/systemd/system/sockets.target.wants")

        root.chroot("dpkg", "-i", runtime_deb, development_deb)
        with self.subTest(step="installed"):
            self.assertTrue(os.access(root.path("usr/sbin/netvane-admind"), os.X_OK))
            self.assertTrue(root.path("usr/include/netvane/netcore/interfaces/interface_reader.h").is_file())
            for socket in SOCKETS:
                self.assertTrue((wants / socket).is_symlink(), f"{socket} not enabled")
                self.assertEqual(root.chroot("systemctl", "is-enabled", socket).stdout.strip(), "enabled")
            self.assertFalse(root.path("etc/systemd/system/multi-user.target.wants/netvane-admind.service").exists())
            state = root.path(STATE).stat()
            self.assertEqual((state.st_mode & 0o7777, state.st_uid), (0o700, 0))
            for name, text in accounts.items():
                self.assertEqual(root.path(f"etc/{name}").read_text(), text, f"/etc/{name} changed")

        # An upgrade keeps the admin's choice of a disabled socket.
        root.chroot("systemctl", "disable", SOCKETS[1])
        root.chroot("dpkg", "-i", runtime_deb)
        with self.subTest(step="upgraded"):
            self.assertTrue((wants / SOCKETS[0]).is_symlink())
            self.assertFalse((wants / SOCKETS[1]).exists())
        root.chroot("systemctl", "enable", SOCKETS[1])

        root.path(STATE).joinpath("pairings.plist").write_bytes(b"bplist00")
        root.chroot("dpkg", "--remove", "netvane")
        with self.subTest(step="removed"):
            self.assertFalse(root.path("usr/sbin/netvane-admind").exists())
            self.assertTrue(root.path(STATE).joinpath("pairings.plist").exists(), "removal must keep the pairings")
            self.assertEqual(root.chroot("dpkg-query", "-W", "-f=${Status}", "netvane").stdout,
                             "deinstall ok config-files")

        root.chroot("dpkg", "--purge", "netvane", "libnetcore-dev")
        with self.subTest(step="purged"):
            self.assertFalse(root.path(STATE).exists())
            # dpkg's own records of the packages are all that may remain.
            left = [path for path in root.changed() if "netvane" in path or "netcore" in path]
            left = [path for path in left if not path.startswith(("var/lib/dpkg/", "var/log/"))]
            self.assertEqual(left, [])
            for socket in SOCKETS:
                self.assertFalse(root.path(f"etc/systemd/system/{socket}").exists(), "still masked")


if __name__ == "__main__":
    if BUILD is None:
        sys.exit(__doc__)
    try:
        for tool in ("cpack", "dpkg-deb", "dpkg-shlibdeps"):
            if shutil.which(tool) is None:
                raise Skip(f"{tool} is not installed")
        if os.geteuid() == 0:
            reexec_in_private_mount_namespace()
    except Skip as reason:
        print(f"SKIP: {reason}")
        sys.exit(SKIP)
    unittest.main(argv=sys.argv[:1], verbosity=2)
