#!/usr/bin/env python3
"""The installed tree, as an admin and as another program's author meet it.

usage: install_test.py BUILD_DIR SOURCE_DIR CXX_COMPILER

Installs BUILD_DIR with the prefix /usr into a fresh staging directory, then
checks what lies where and with which modes, has systemd judge the units
(`systemd-analyze verify`, and `security --offline` against the exposure
target), starts the staged daemon to see that the socket units name its
services, and builds small programs against the staged NetCore through
find_package and through pkg-config. As root it also runs the daemon with
no more capabilities than its unit grants and asks it for a tun owner of
another user.
"""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

BUILD, SOURCE, CXX = (Path(arg) for arg in sys.argv[1:4]) if len(sys.argv) == 4 else (None, None, None)
HERE = Path(__file__).resolve().parent
# systemd-analyze rates exposure from 0 to 10; "OK" ends at 2.0 (exclusive
# of nothing: 2.0 itself is still OK).
EXPOSURE_TARGET = 2.0
UNITS = ("netvane-admind.service", "netvane-admind-app.socket", "netvane-admind-control.socket")
COMMAND_TIMEOUT = 300


def run(command, **options):
    options.setdefault("timeout", COMMAND_TIMEOUT)
    return subprocess.run([str(part) for part in command], capture_output=True, text=True, **options)


def cache_value(name):
    for line in (BUILD / "CMakeCache.txt").read_text().splitlines():
        if line.startswith(name + ":"):
            return line.split("=", 1)[1]
    raise KeyError(name)


def unit_settings(path):
    """Key to list of values, over every section of a unit file."""
    settings = {}
    for line in Path(path).read_text().splitlines():
        if "=" in line and not line.lstrip().startswith(("#", ";", "[")):
            key, value = line.split("=", 1)
            settings.setdefault(key.strip(), []).append(value.strip())
    return settings


class InstalledTree(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.work = Path(tempfile.mkdtemp(prefix="netvane-install-"))
        cls.stage = cls.work / "stage"
        installed = run(["cmake", "--install", BUILD, "--prefix", "/usr"], env={**os.environ, "DESTDIR": str(cls.stage)})
        if installed.returncode != 0:
            raise AssertionError(f"cmake --install failed:\n{installed.stdout}{installed.stderr}")
        cls.usr = cls.stage / "usr"
        cls.libdir = cls.usr / cache_value("CMAKE_INSTALL_LIBDIR")
        cls.unitdir = cls.usr / "lib/systemd/system"
        cls.team = cache_value("NETVANE_TEAM_ID")

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.work, ignore_errors=True)

    def files(self):
        return {path.relative_to(self.stage).as_posix(): path
                for path in self.stage.rglob("*") if path.is_file() or path.is_symlink()}

    def test_files_lie_where_the_system_looks_with_their_modes(self):
        libdir = self.libdir.relative_to(self.stage).as_posix()
        executables = {"usr/bin/netvane", "usr/sbin/netvane-admind"}
        expected = executables | {
            *(f"usr/lib/systemd/system/{unit}" for unit in UNITS),
            "usr/lib/tmpfiles.d/netvane-admin.conf",
            "usr/share/polkit-1/actions/com.tarnwick.Netvane.admin.policy",
            "usr/share/man/man1/netvane.1",
            "usr/share/man/man8/netvane-admind.8",
            "usr/share/bash-completion/completions/netvane",
            "usr/share/bash-completion/completions/netvane-admind",
            f"{libdir}/libnetcore.a",
            f"{libdir}/libnetvane_support.a",
            f"{libdir}/pkgconfig/netcore.pc",
            f"{libdir}/cmake/NetCore/NetCoreConfig.cmake",
            f"{libdir}/cmake/NetCore/NetCoreConfigVersion.cmake",
            f"{libdir}/cmake/NetCore/NetCoreTargets.cmake",
        }
        files = self.files()
        self.assertLessEqual(expected, set(files), "missing from the installed tree")
        headers = {name for name in files if name.startswith("usr/include/")}
        rest = set(files) - expected - headers
        self.assertTrue(all(re.fullmatch(rf"{libdir}/cmake/NetCore/NetCoreTargets-\w+\.cmake", name) for name in rest),
                        f"unexpected files: {sorted(rest)}")

        self.assertIn("usr/include/netvane/netcore/interfaces/interface_reader.h", headers)
        self.assertIn("usr/include/netvane/support/result.h", headers)
        private = [name for name in headers if re.search(r"/(linux|darwin)/", name)]
        self.assertEqual(private, [], "OS backend headers are private")

        for name, path in files.items():
            with self.subTest(file=name):
                mode = path.lstat().st_mode & 0o7777
                self.assertEqual(mode, 0o755 if name in executables else 0o644, oct(mode))
        for path in self.stage.rglob("*"):
            if path.is_dir():
                self.assertEqual(path.stat().st_mode & 0o7777, 0o755, path)

    def test_install_manifest_names_every_file(self):
        # What an uninstall removes: files made while installing included.
        manifest = set((BUILD / "install_manifest.txt").read_text().split())
        installed = {"/" + name for name in self.files()}
        self.assertEqual({path.replace(str(self.stage), "", 1) for path in manifest}, installed)

    def test_generated_files_name_the_installed_prefix(self):
        service = unit_settings(self.unitdir / "netvane-admind.service")
        self.assertEqual(service["ExecStart"], ["/usr/sbin/netvane-admind --foreground"])
        pc = (self.libdir / "pkgconfig/netcore.pc").read_text()
        self.assertIn("prefix=/usr\n", pc)
        self.assertNotIn("@", pc)

    def verify_root(self):
        """The staged tree plus the system's own units, which ours refer to."""
        root = self.work / "verify-root"
        if not root.exists():
            shutil.copytree(self.stage, root, symlinks=True)
            system_units = Path("/usr/lib/systemd/system")
            for unit in system_units.iterdir():
                target = root / "usr/lib/systemd/system" / unit.name
                if not target.exists() and not unit.is_dir():
                    shutil.copy2(unit, target, follow_symlinks=False)
        return root

    def test_units_pass_systemd_verify(self):
        root = self.verify_root()
        # Documentation= pages are looked up with man(1): ours must resolve.
        env = {**os.environ, "MANPATH": str(root / "usr/share/man")}
        result = run(["systemd-analyze", "verify", f"--root={root}", *UNITS], env=env)
        self.assertEqual((result.returncode, result.stdout + result.stderr), (0, ""))

    def test_service_exposure_is_within_target(self):
        result = run(["systemd-analyze", "security", "--offline=yes", "--no-pager", f"--root={self.verify_root()}",
                      "netvane-admind.service"])
        self.assertEqual(result.returncode, 0, result.stderr)
        found = re.search(r"Overall exposure level for netvane-admind\.service: (\d+\.\d)", result.stdout)
        self.assertIsNotNone(found, result.stdout)
        failing = "\n".join(line for line in result.stdout.splitlines() if line.startswith("✗"))
        self.assertLessEqual(float(found.group(1)), EXPOSURE_TARGET, failing)

    def test_socket_units_name_the_services_the_daemon_serves(self):
        runtime = self.work / "runtime"
        state = self.work / "state"
        daemon = subprocess.Popen([self.usr / "sbin/netvane-admind", "--foreground", "--state-dir", state,
                                   "--runtime-dir", runtime], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        try:
            deadline = time.monotonic() + 10
            while len(list(runtime.glob("*"))) < 2 and time.monotonic() < deadline and daemon.poll() is None:
                time.sleep(0.05)
            served = sorted(path.name for path in runtime.glob("*"))
        finally:
            daemon.kill()
            _, errors = daemon.communicate()
        expected = sorted([f"{self.team}.com.tarnwick.Netvane.admin", f"{self.team}.com.tarnwick.Netvane.admin-control"])
        self.assertEqual(served, expected, errors)
        for socket_unit in UNITS[1:]:
            settings = unit_settings(self.unitdir / socket_unit)
            with self.subTest(unit=socket_unit):
                [listen] = settings["ListenStream"]
                self.assertEqual(Path(listen).parent, Path("/run/netvane-admin"))
                self.assertIn(Path(listen).name, served)
                # The daemon picks its inherited sockets by this name.
                self.assertEqual(settings["FileDescriptorName"], [Path(listen).name])
                self.assertEqual(settings["Service"], ["netvane-admind.service"])

    def tunnel_answer(self, mode, capabilities):
        work = Path(tempfile.mkdtemp(prefix="probe-", dir=self.work))
        caps = ",".join("+" + cap.removeprefix("CAP_").lower() for cap in capabilities)
        result = run(["unshare", "-n", HERE / "capability_probe.sh", mode, caps, self.usr / "sbin/netvane-admind",
                      self.usr / "bin/netvane", work], timeout=60)
        self.assertEqual(result.returncode, 0, result.stderr + (work / "daemon.log").read_text(errors="replace")
                         if (work / "daemon.log").exists() else result.stderr)
        return [owner.get("interface") for owner in json.loads(result.stdout)]

    @unittest.skipUnless(os.geteuid() == 0, "needs root: network namespaces, tun devices and another uid")
    def test_unit_capabilities_are_what_the_tunnel_answer_needs(self):
        [bounding] = unit_settings(self.unitdir / "netvane-admind.service")["CapabilityBoundingSet"]
        granted = bounding.split()
        for mode in ("other-user", "moved-device"):
            with self.subTest(mode=mode, capabilities="the unit's"):
                self.assertEqual(self.tunnel_answer(mode, granted), ["nvprobe0"])
        # Each capability is needed: without it one of the holders is lost.
        lost = {"CAP_DAC_READ_SEARCH": "other-user", "CAP_SYS_PTRACE": "other-user", "CAP_NET_ADMIN": "moved-device"}
        self.assertEqual(sorted(lost), sorted(granted))
        for capability, mode in lost.items():
            with self.subTest(mode=mode, without=capability):
                self.assertEqual(self.tunnel_answer(mode, [cap for cap in granted if cap != capability]), [])

    def test_public_headers_compile_alone(self):
        include = self.usr / "include/netvane"
        headers = sorted(path.relative_to(include).as_posix() for path in include.rglob("*.h"))
        self.assertGreater(len(headers), 10)

        def compile_alone(header):
            # Only the installed include directory: a public header that
            # reaches for a private one fails here.
            source = f'#include "{header}"\n'
            result = run([CXX, "-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Werror", "-I", include,
                          "-x", "c++", "-"], input=source)
            return header, result

        with ThreadPoolExecutor(max_workers=2) as pool:
            for header, result in pool.map(compile_alone, headers):
                with self.subTest(header=header):
                    self.assertEqual(result.returncode, 0, result.stderr)

    def check_consumer(self, executable):
        result = run([executable], timeout=60)
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        self.assertIn("loopback yes", result.stdout)
        # NetCore loads the bus library when it first opens a bus; its users
        # link nothing of it.
        dynamic = run(["readelf", "-d", executable])
        self.assertEqual(dynamic.returncode, 0, dynamic.stderr)
        self.assertIn("(NEEDED)", dynamic.stdout)
        self.assertNotIn("libsystemd", dynamic.stdout)

    def build_consumer(self, source, build):
        configured = run(["cmake", "-S", HERE / source, "-B", build, "-G", "Ninja",
                          f"-DCMAKE_CXX_COMPILER={CXX}", f"-DCMAKE_PREFIX_PATH={self.usr}"])
        self.assertEqual(configured.returncode, 0, configured.stdout + configured.stderr)
        built = run(["cmake", "--build", build])
        self.assertEqual(built.returncode, 0, built.stdout + built.stderr)

    def test_consumer_builds_through_find_package(self):
        build = self.work / "consumer-cmake"
        self.build_consumer("consumer", build)
        self.check_consumer(build / "consumer")

    def test_consumer_builds_through_pkg_config(self):
        env = {**os.environ, "PKG_CONFIG_PATH": str(self.libdir / "pkgconfig"),
               "PKG_CONFIG_SYSROOT_DIR": str(self.stage)}
        flags = run(["pkg-config", "--cflags", "--libs", "netcore"], env=env)
        self.assertEqual(flags.returncode, 0, flags.stderr)
        self.assertIn(f"-I{self.usr}/include/netvane", flags.stdout)
        executable = self.work / "consumer-pkg-config"
        built = run([CXX, "-std=c++20", HERE / "consumer/main.cpp", "-o", executable, *flags.stdout.split()])
        self.assertEqual(built.returncode, 0, built.stderr)
        self.check_consumer(executable)

    def test_consumer_links_beside_the_bus_library(self):
        # A program that links the bus library itself, and a shared object made
        # from NetCore's archive: NetCore defines none of the library's
        # functions, so neither overrides the library's own for the process.
        build = self.work / "consumer-with-bus"
        self.build_consumer("consumer_with_bus", build)
        result = run([build / "consumer_with_bus"], timeout=60, env={**os.environ, "LD_LIBRARY_PATH": str(build)})
        self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        for binary, dynamic in ((build / "consumer_with_bus", False), (build / "libconfiguration_plugin.so", True)):
            with self.subTest(binary=binary.name):
                symbols = run(["nm", "--defined-only", *(["-D"] if dynamic else []), binary])
                self.assertEqual(symbols.returncode, 0, symbols.stderr)
                defined = [line for line in symbols.stdout.splitlines() if re.search(r" sd_bus_\w+$", line)]
                self.assertEqual(defined, [], "the bus library's functions defined outside it")


if __name__ == "__main__":
    if BUILD is None:
        sys.exit(__doc__)
    unittest.main(argv=sys.argv[:1], verbosity=2)
