#!/bin/bash
# Removes Netvane from this Mac: stops and unloads the daemon's job, removes
# the pair right from the authorization database and every file the install
# manifest lists, and forgets the package's receipt if a package installed
# it. The pairings stay (a new install finds them) unless --purge is given.
#
# usage: sudo uninstall.sh [--dry-run] [--purge] [--manifest FILE]
#   --purge     also remove the daemon's state, the pairings among it
#   --manifest  the list of what was installed (default: the installed one,
#               /Library/Application Support/Netvane/install.manifest)
#   --dry-run   print every command instead of running it
# Exit status: 0 removed (or printed), 1 failed, 2 usage.
set -eo pipefail
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=common.sh source-path=SCRIPTDIR
. "$here/common.sh"

purge=false manifest=$NV_MANIFEST
while (($#)); do
  case $1 in
    -h | --help) sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; exit 0 ;;
    --dry-run) nv_dry_run=true; shift ;;
    --purge) purge=true; shift ;;
    --manifest) (($# >= 2)) || { echo "uninstall.sh: --manifest needs a FILE" >&2; exit 2; }; manifest=$2; shift 2 ;;
    *) echo "uninstall.sh: unknown argument $1 (see --help)" >&2; exit 2 ;;
  esac
done

nv_require_system
# Read whole before anything goes: the manifest is among the files removed.
nv_read_manifest "$manifest"

nv_job_stop
if ! nv_right_remove; then
  echo "uninstall.sh: the right $NV_PAIR_RIGHT was not registered" >&2
fi
# Files first, then our directories, each after what it holds.
for ((i = ${#nv_paths[@]} - 1; i >= 0; i--)); do
  [[ ${nv_paths[i]} == */ ]] || nv_run rm -f "${nv_paths[i]}"
done
for ((i = ${#nv_paths[@]} - 1; i >= 0; i--)); do
  [[ ${nv_paths[i]} == */ ]] || continue
  nv_run rmdir "${nv_paths[i]%/}" || echo "uninstall.sh: kept ${nv_paths[i]%/}: it holds files of someone else's" >&2
done
if $purge; then
  nv_run rm -rf "$NV_STATE_DIR"
else
  nv_note "The pairings stay in $NV_STATE_DIR; --purge removes them."
fi
if $nv_dry_run; then
  nv_note "when a package installed it:"
  nv_quote pkgutil --forget "$NV_PACKAGE_ID"
elif pkgutil --pkg-info "$NV_PACKAGE_ID" >/dev/null 2>&1; then
  pkgutil --forget "$NV_PACKAGE_ID" >/dev/null
fi
