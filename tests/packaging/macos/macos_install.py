"""What the macOS install checks share: the manifest, Mach-O load commands and
sections, and the commands the scripts print when dry."""
import shlex
import struct
import subprocess
from dataclasses import dataclass
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[3]
SCRIPTS = SOURCE / "packaging" / "macos"
MANIFEST = "/Library/Application Support/Netvane/install.manifest"

# The roles' programs, by the identifier each is signed with.
DAEMON_ID = "com.tarnwick.Netvane.admin"
APP_ID = "com.tarnwick.Netvane"
CONTROL_ID = "com.tarnwick.Netvane.Admin"


@dataclass
class Entry:
    mode: int
    owner: str
    group: str
    identifier: str  # "-" when not signed
    path: str        # absolute; a directory ends in "/"

    @property
    def signed(self):
        return self.identifier != "-"


def read_manifest(text):
    entries = []
    for line in text.splitlines():
        if not line.strip() or line.startswith("#"):
            continue
        mode, owner, group, identifier, path = line.split(" ", 4)
        entries.append(Entry(int(mode, 8), owner, group, identifier, path))
    return entries


def run(command, check=True, **options):
    result = subprocess.run([str(part) for part in command], capture_output=True, text=True, timeout=120, **options)
    if check and result.returncode != 0:
        raise AssertionError(f"{shlex.join(map(str, command))} failed ({result.returncode}):\n"
                             f"{result.stdout}{result.stderr}")
    return result


def printed_commands(output):
    """The commands a dry run printed, as word lists, notes left out."""
    return [shlex.split(line) for line in output.splitlines() if line and not line.startswith("#")]


# Mach-O, as far as the checks need it (mach-o/loader.h, mach-o/fat.h).
FAT_MAGIC = 0xCAFEBABE
MH_MAGIC_64 = 0xFEEDFACF
LC_SEGMENT_64 = 0x19
LC_BUILD_VERSION = 0x32
PLATFORM_MACOS = 1
CPU_TYPES = {0x0100000C: "arm64", 0x01000007: "x86_64"}


@dataclass
class Slice:
    arch: str
    platform: int | None
    minos: str | None
    sections: dict  # (segment, section) -> bytes


def _version(word):
    return f"{word >> 16}.{(word >> 8) & 0xFF}.{word & 0xFF}"


def _thin(data, offset):
    magic, cputype, _, _, ncmds, _, _, _ = struct.unpack_from("<8I", data, offset)
    if magic != MH_MAGIC_64:
        raise ValueError(f"no 64-bit Mach-O header at {offset}")
    found = Slice(CPU_TYPES.get(cputype, hex(cputype)), None, None, {})
    at = offset + 32
    for _ in range(ncmds):
        cmd, size = struct.unpack_from("<2I", data, at)
        if cmd == LC_BUILD_VERSION:
            found.platform, minos = struct.unpack_from("<2I", data, at + 8)
            found.minos = _version(minos)
        elif cmd == LC_SEGMENT_64:
            nsects = struct.unpack_from("<I", data, at + 64)[0]
            for index in range(nsects):
                section = at + 72 + 80 * index
                name, segment = (struct.unpack_from("16s", data, section + start)[0].rstrip(b"\0").decode()
                                 for start in (0, 16))
                length = struct.unpack_from("<Q", data, section + 40)[0]
                file_offset = struct.unpack_from("<I", data, section + 48)[0]
                found.sections[(segment, name)] = data[offset + file_offset:offset + file_offset + length]
        at += size
    return found


def macho_slices(data):
    """Every architecture of a thin or universal Mach-O program."""
    if struct.unpack_from(">I", data)[0] == FAT_MAGIC:
        count = struct.unpack_from(">I", data, 4)[0]
        return [_thin(data, struct.unpack_from(">5I", data, 8 + 20 * index)[2]) for index in range(count)]
    return [_thin(data, 0)]
