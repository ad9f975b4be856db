#!/usr/bin/env python3
"""What the CLI carries into every start: no TLS or cryptographic library.

usage: linked_libraries_test.py NETVANE

The TLS library is loaded by `public-ip` when it first needs it; neither it
nor the cryptographic library may be linked into the program, as a shared
dependency or as a static copy.
"""
import re
import subprocess
import sys

program = sys.argv[1]
problems = []

dynamic = subprocess.run(["readelf", "-d", program], check=True, capture_output=True, text=True).stdout
needed = re.findall(r"\(NEEDED\)\s+Shared library: \[([^\]]+)\]", dynamic)
if not needed:
    problems.append("readelf found no NEEDED entries at all; is this a dynamic program?")
for library in needed:
    if re.match(r"lib(ssl|crypto)\.so", library):
        problems.append(f"links {library}")

symbols = subprocess.run(["nm", "--defined-only", program], capture_output=True, text=True)
if symbols.returncode != 0:
    problems.append("nm could not read the symbol table: " + symbols.stderr.strip())
defined = {line.split()[-1] for line in symbols.stdout.splitlines() if line.strip()}
for name in ("SSL_new", "SSL_CTX_new", "EVP_Digest", "OPENSSL_init_crypto"):
    if name in defined:
        problems.append(f"carries a static copy ({name})")

for problem in problems:
    print(f"{program}: {problem}")
sys.exit(1 if problems else 0)
