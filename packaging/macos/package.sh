#!/bin/bash
# Lays out a flat installer package's parts from a signed stage: the payload
# (every file of the manifest with its mode; pkgbuild makes the owners root's)
# and the scripts (preinstall stops a running daemon, postinstall registers
# the pair right and starts the job). Then prints the pkgbuild command that
# makes the package of them on a Mac; nothing here needs one.
#
# usage: packaging/macos/package.sh [--identity INSTALLER_IDENTITY] STAGE OUT
#   --identity  a "Developer ID Installer: NAME (TEAM)" identity to sign the
#               package with (Installer refuses an unsigned package from the
#               internet)
#   OUT         a new or empty directory: OUT/root, OUT/scripts, and the
#               package once pkgbuild has run
# Exit status: 0 laid out, 1 failed, 2 usage.
set -eo pipefail
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=common.sh source-path=SCRIPTDIR
. "$here/common.sh"

identity="" operands=()
while (($#)); do
  case $1 in
    -h | --help) sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; exit 0 ;;
    --identity) (($# >= 2)) || { echo "package.sh: --identity needs a value" >&2; exit 2; }; identity=$2; shift 2 ;;
    -*) echo "package.sh: unknown option $1 (see --help)" >&2; exit 2 ;;
    *) operands+=("$1"); shift ;;
  esac
done
((${#operands[@]} == 2)) || { echo "usage: packaging/macos/package.sh [--identity ID] STAGE OUT" >&2; exit 2; }
stage=${operands[0]%/} out=${operands[1]%/}

nv_read_manifest "$stage$NV_MANIFEST"
nv_check_stage "$stage"
for ((i = 0; i < ${#nv_paths[@]}; i++)); do
  [[ ${nv_ids[i]} == - ]] && continue
  if [[ $(uname -s) != Darwin ]]; then
    echo "# not checked off a Mac: the signature of ${nv_paths[i]}"
  elif ! codesign --verify --strict "$stage${nv_paths[i]}"; then
    nv_fail "$stage${nv_paths[i]} is not validly signed: sign the stage with packaging/macos/sign.sh first"
  fi
done
# Never into a directory with something in it: OUT/root is laid out afresh.
if [[ -e $out ]] && [[ -n $(ls -A "$out") ]]; then nv_fail "$out is not empty"; fi

# The system's directories that the payload passes through are 0755 and
# Installer must find them so.
umask 022
mkdir -p "$out/root" "$out/scripts"
for ((i = 0; i < ${#nv_paths[@]}; i++)); do
  path=${nv_paths[i]}
  if [[ $path == */ ]]; then
    mkdir -p "$out/root$path"
  else
    mkdir -p "$(dirname "$out/root$path")"
    cp "$stage$path" "$out/root$path"
  fi
  chmod "${nv_modes[i]}" "$out/root${path%/}"
done
cp "$here/package-scripts/preinstall" "$here/package-scripts/postinstall" "$here/common.sh" "$out/scripts/"
chmod 0755 "$out/scripts/preinstall" "$out/scripts/postinstall"
chmod 0644 "$out/scripts/common.sh"

daemon=$stage/Library/PrivilegedHelperTools/$NV_LABEL
version=$(nv_embedded_value "$daemon" CFBundleShortVersionString)
[[ -n $version ]] || nv_fail "$daemon carries no version in its Info.plist"
signing=()
[[ -z $identity ]] || signing=(--sign "$identity")
echo "# On a Mac, make the package with:"
nv_quote pkgbuild --root "$out/root" --scripts "$out/scripts" --identifier "$NV_PACKAGE_ID" --version "$version" \
  --install-location / --ownership recommended ${signing[@]+"${signing[@]}"} "$out/Netvane-$version.pkg"
