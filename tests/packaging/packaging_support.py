"""What the package tests share: commands, the packages, a throwaway root."""
import shutil
import subprocess
from pathlib import Path


def run(command, check=True, **options):
    options.setdefault("timeout", 300)
    result = subprocess.run([str(part) for part in command], capture_output=True, text=True, **options)
    if check and result.returncode != 0:
        raise AssertionError(f"{' '.join(map(str, command))} failed ({result.returncode}):\n{result.stdout}{result.stderr}")
    return result


def build_packages(build, out):
    """Package name to .deb file, made by cpack from the build directory."""
    run(["cpack", "-G", "DEB", "-B", out, "--config", Path(build) / "CPackConfig.cmake"])
    return {path.name.split("_")[0]: path for path in Path(out).glob("*.deb")}


def mounts_under(directory):
    with open("/proc/self/mounts") as mounts:
        return [line.split()[1] for line in mounts if line.split()[1].startswith(f"{directory}/")]


def remove_unmounted(directory):
    # IMPORTANT: never delete through a mount: the throwaway root binds /dev.
    if mounts_under(directory):
        raise RuntimeError(f"still mounted, not removing {directory}: {mounts_under(directory)}")
    shutil.rmtree(directory, ignore_errors=True)


class ThrowawayRoot:
    """The machine's root under a tmpfs overlay, with /dev, /proc and an empty /run."""

    def __init__(self, work):
        self.layers = work / "layers"
        self.root = work / "root"
        for directory in (self.layers, self.root):
            directory.mkdir()
        run(["mount", "-t", "tmpfs", "tmpfs", self.layers])
        for layer in ("upper", "work"):
            (self.layers / layer).mkdir()
        run(["mount", "-t", "overlay", "overlay", "-o",
             f"lowerdir=/,upperdir={self.layers}/upper,workdir={self.layers}/work", self.root])
        run(["mount", "--rbind", "/dev", self.root / "dev"])
        run(["mount", "-t", "proc", "proc", self.root / "proc"])
        for empty in ("run", "tmp"):
            run(["mount", "-t", "tmpfs", "tmpfs", self.root / empty])

    def close(self):
        run(["umount", "--recursive", "--lazy", self.root])
        run(["umount", "--lazy", self.layers])

    def path(self, relative):
        return self.root / relative

    def chroot(self, *command, check=True):
        return run(["chroot", self.root, *command], check=check,
                   env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C", "DEBIAN_FRONTEND": "noninteractive"})

    def changed(self):
        """Every path the packages' life left behind in the overlay."""
        upper = self.layers / "upper"
        return sorted(path.relative_to(upper).as_posix() for path in upper.rglob("*"))
