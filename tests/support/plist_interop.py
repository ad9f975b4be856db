#!/usr/bin/env python3
"""Property-list interop against Python's plistlib, in both directions and both
formats: documents written by plistlib are read by `netvane plist show --json`,
and `netvane plist convert` rewrites them for plistlib to read back.

usage: plist_interop.py NETVANE_BINARY
"""
import base64
import datetime
import json
import os
import plistlib
import random
import subprocess
import sys
import tempfile

NETVANE = sys.argv[1]
REFERENCE = datetime.datetime(2001, 1, 1)


def random_string(rng):
    alphabet = ["a", "Z", " ", "<", "&", "\t", "\u00e9", "\u65e5", "\U0001F600", "\"", "\\"]
    return "".join(rng.choice(alphabet) for _ in range(rng.randint(0, 20)))


def random_scalar(rng):
    kind = rng.randrange(8)
    if kind == 0:
        return rng.choice([0, 1, 255, 256, 65535, 65536, 2**32, 2**63 - 1, 2**63, 2**64 - 1,
                           -1, -256, -(2**63), rng.randint(-(2**63), 2**64 - 1)])
    if kind == 1:
        return rng.choice([0.0, -1.5, 1e-300, 1e300, 3.141592653589793, float(rng.randint(-99, 99)) / 8])
    if kind == 2:
        return rng.random() < 0.5
    if kind == 3:
        # Whole seconds: the XML form carries no fraction. Includes years before 1970 and 2001.
        return REFERENCE + datetime.timedelta(seconds=rng.randint(-3 * 10**9, 3 * 10**9))
    if kind == 4:
        return bytes(rng.randrange(256) for _ in range(rng.choice([0, 1, 14, 15, 16, 300])))
    return random_string(rng)


def random_value(rng, depth=0):
    roll = rng.random()
    if depth < 4 and roll < 0.2:
        return [random_value(rng, depth + 1) for _ in range(rng.choice([0, 1, 5, 20]))]
    if depth < 4 and roll < 0.4:
        return {random_string(rng) + str(i): random_value(rng, depth + 1) for i in range(rng.choice([0, 1, 5, 20]))}
    return random_scalar(rng)


def as_json(value):
    """What `netvane plist show --json` prints, as Python data."""
    if isinstance(value, dict):
        return {k: as_json(v) for k, v in value.items()}
    if isinstance(value, list):
        return [as_json(v) for v in value]
    if isinstance(value, bytes):
        return base64.b64encode(value).decode()
    if isinstance(value, datetime.datetime):
        return value.strftime("%Y-%m-%dT%H:%M:%S.000Z")
    return value


def run(*args):
    return subprocess.run([NETVANE, *args], capture_output=True, check=True).stdout


def main():
    rng = random.Random(20011)
    failures = 0
    checks = 0
    with tempfile.TemporaryDirectory() as tmp:
        documents = [random_value(rng) for _ in range(60)]
        documents.append([{"digest": bytes(32), "uid": 501, "created": REFERENCE} for _ in range(300)])
        documents.append(list(range(70000)))
        for index, document in enumerate(documents):
            for fmt_name, fmt in (("binary", plistlib.FMT_BINARY), ("xml", plistlib.FMT_XML)):
                source = os.path.join(tmp, f"doc{index}.{fmt_name}")
                with open(source, "wb") as f:
                    plistlib.dump(document, f, fmt=fmt, sort_keys=False)
                # plistlib writes, we read.
                shown = json.loads(run("plist", "show", source, "--json"))
                checks += 1
                if shown != as_json(document):
                    failures += 1
                    print(f"FAIL read {fmt_name} document {index}")
                # We write (in each format), plistlib reads.
                for target in ("binary", "xml"):
                    out = os.path.join(tmp, f"doc{index}.{fmt_name}.to.{target}")
                    run("plist", "convert", source, "--to", target, "-o", out)
                    with open(out, "rb") as f:
                        back = plistlib.load(f)
                    checks += 1
                    if back != document:
                        failures += 1
                        print(f"FAIL write {target} from {fmt_name} document {index}")
        # A keyed archive's UIDs: shown as {"CF$UID": n}, written back as UIDs.
        archive = {"$archiver": "NSKeyedArchiver", "$version": 100000,
                   "$top": {"root": plistlib.UID(1)},
                   "$objects": ["$null", {"list": [plistlib.UID(n) for n in (2, 255, 256, 65536, 2**32, 2**64 - 1)]}]}
        source = os.path.join(tmp, "archive.binary")
        with open(source, "wb") as f:
            plistlib.dump(archive, f, fmt=plistlib.FMT_BINARY, sort_keys=False)

        def uids_as_json(value):
            if isinstance(value, plistlib.UID):
                return {"CF$UID": value.data}
            if isinstance(value, dict):
                return {k: uids_as_json(v) for k, v in value.items()}
            if isinstance(value, list):
                return [uids_as_json(v) for v in value]
            return value

        checks += 1
        if json.loads(run("plist", "show", source, "--json")) != uids_as_json(archive):
            failures += 1
            print("FAIL read a keyed archive")
        out = os.path.join(tmp, "archive.to.xml")
        run("plist", "convert", source, "--to", "xml", "-o", out)
        back = os.path.join(tmp, "archive.back.binary")
        run("plist", "convert", out, "--to", "binary", "-o", back)
        with open(back, "rb") as f:
            checks += 1
            if plistlib.load(f) != archive:
                failures += 1
                print("FAIL a keyed archive through XML and back")
    print(f"{checks - failures} passed, {failures} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
