#!/bin/bash
# Installs Netvane on this Mac from a signed stage (`cmake --install
# --component runtime` into a DESTDIR, then sign.sh): every file its manifest
# lists, with the manifest's owner and mode; the pair right's rule in the
# authorization database; the daemon's launchd job, started. Installing again
# replaces the programs and restarts the job; the pairings are kept.
#
# usage: sudo packaging/macos/install.sh [--dry-run] STAGE
#   --dry-run  check the stage, then print every command instead of running
#              it (anywhere: nothing is changed)
# Exit status: 0 installed (or printed), 1 failed, 2 usage.
set -eo pipefail
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=common.sh source-path=SCRIPTDIR
. "$here/common.sh"

stage=""
while (($#)); do
  case $1 in
    -h | --help) sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; exit 0 ;;
    --dry-run) nv_dry_run=true; shift ;;
    -*) echo "install.sh: unknown option $1 (see --help)" >&2; exit 2 ;;
    *) [[ -z $stage ]] || { echo "install.sh: one STAGE only" >&2; exit 2; }; stage=${1%/}; shift ;;
  esac
done
[[ -n $stage ]] || { echo "usage: sudo packaging/macos/install.sh [--dry-run] STAGE" >&2; exit 2; }

nv_require_system
nv_read_manifest "$stage$NV_MANIFEST"
nv_check_stage "$stage"

# An unsigned or badly signed program would be refused by the daemon (the
# clients) or would refuse every client (the daemon); better to stop here.
for ((i = 0; i < ${#nv_paths[@]}; i++)); do
  [[ ${nv_ids[i]} == - ]] && continue
  if ! nv_run codesign --verify --strict "$stage${nv_paths[i]}"; then
    nv_fail "$stage${nv_paths[i]} is not validly signed: sign the stage with packaging/macos/sign.sh first"
  fi
done

nv_job_stop
for ((i = 0; i < ${#nv_paths[@]}; i++)); do
  path=${nv_paths[i]}
  owner=(-o "${nv_owners[i]}" -g "${nv_groups[i]}" -m "${nv_modes[i]}")
  if [[ $path == */ ]]; then
    nv_run install -d "${owner[@]}" "${path%/}"
  else
    # install(1) unlinks the old file and writes a new one: the kernel keeps
    # the signature of a program file it has run, which a file rewritten in
    # place would no longer match.
    nv_run mkdir -p "$(dirname "$path")"
    nv_run install "${owner[@]}" "$stage$path" "$path"
  fi
done
nv_right_register
nv_job_start

$nv_dry_run || cat <<EOF
Netvane is installed and its daemon started (launchctl print system/$NV_LABEL).
Pair the application role with it, as the user who will use it:
  netvane admin app pair                        # waits for the approval
  netvane-control admin control pending         # in a second terminal
  netvane-control admin control approve ID      # asks for an administrator
EOF
