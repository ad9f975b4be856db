#!/bin/bash
# Signs the programs of a staged macOS install (`cmake --install --component
# runtime` into a DESTDIR) for distribution outside the App Store: each with
# the Developer ID Application identity of the team, the hardened runtime, a
# secure timestamp, and the identifier that its manifest entry and its own
# embedded Info.plist name (the daemon's label; the application role's
# identifier for netvane, the control role's for netvane-control). Then it
# checks each client against the very requirement the daemon sets on its
# service, so that a signature the daemon would refuse fails here, not there.
#
# usage: packaging/macos/sign.sh --identity IDENTITY [--team TEAM]
#                                [--keychain FILE] [--dry-run] STAGE
#   --identity  the signing identity: "Developer ID Application: NAME (TEAM)"
#               or its SHA-1 hash (then --team is needed)
#   --team      the team identifier; by default the one in the identity
#   --keychain  where to find the identity, if not in the search list
#   --dry-run   check the inputs, then print every command instead of
#               running it (anywhere; codesign exists only on a Mac)
# Inputs are checked first: every program is a Mach-O program whose embedded
# Info.plist names its identifier and the team. Exit status: 0 signed (or
# printed), 1 an input or a command failed, 2 usage.
set -eo pipefail
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=common.sh source-path=SCRIPTDIR
. "$here/common.sh"

usage() {
  sed -n '/^# usage:/,/^# Inputs/{/^# Inputs/d;s/^# \{0,1\}//;p;}' "$0" >&2
  exit 2
}

identity="" team="" keychain="" stage=""
while (($#)); do
  case $1 in
    -h | --help) sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0"; exit 0 ;;
    --dry-run) nv_dry_run=true; shift ;;
    --identity | --team | --keychain)
      (($# >= 2)) || usage
      case $1 in
        --identity) identity=$2 ;;
        --team) team=$2 ;;
        --keychain) keychain=$2 ;;
      esac
      shift 2 ;;
    -*) echo "sign.sh: unknown option $1" >&2; usage ;;
    *) [[ -z $stage ]] || usage; stage=$1; shift ;;
  esac
done
[[ -n $identity && -n $stage ]] || usage

# The team pins everything: the daemon's service names and requirements come
# from the team in its Info.plist, and a client signed by another team is
# refused. The identity's own team is the one that signs.
identity_pattern='\(([A-Z0-9]{10})\)$'
if [[ $identity =~ $identity_pattern ]]; then
  if [[ -n $team && $team != "${BASH_REMATCH[1]}" ]]; then
    nv_fail "the identity belongs to team ${BASH_REMATCH[1]}, not $team"
  fi
  team=${BASH_REMATCH[1]}
fi
team_pattern='^[A-Z0-9]{10}$' hash_pattern='^[0-9A-Fa-f]{40}$'
[[ $team =~ $team_pattern ]] || nv_fail "give the team identifier (ten letters and digits) with --team"
[[ $identity == "Developer ID Application: "* || $identity =~ $hash_pattern ]] ||
  nv_fail "the daemon admits only Developer ID signatures: use a \"Developer ID Application\" identity"

stage=${stage%/}
nv_read_manifest "$stage$NV_MANIFEST"
programs=() ids=()
for ((i = 0; i < ${#nv_paths[@]}; i++)); do
  [[ ${nv_ids[i]} == - ]] && continue
  program=$stage${nv_paths[i]} id=${nv_ids[i]}
  [[ -f $program && ! -L $program ]] || nv_fail "no program at $program"
  nv_is_macho "$program" || nv_fail "$program is not a Mach-O program"
  embedded=$(nv_embedded_value "$program" CFBundleIdentifier)
  [[ $embedded == "$id" ]] || nv_fail "$program embeds the identifier '$embedded', not $id"
  built_for=$(nv_embedded_value "$program" NVTeamID)
  [[ $built_for == "$team" ]] ||
    nv_fail "$program was built for team '$built_for', not $team: rebuild for it (scripts/build-macos.sh --team $team, or -DNETVANE_TEAM_ID=$team)"
  nv_requirement "$id" "$team" >/dev/null
  programs+=("$program") ids+=("$id")
done
((${#programs[@]} > 0)) || nv_fail "the manifest names no program to sign"

keychain_option=()
[[ -z $keychain ]] || keychain_option=(--keychain "$keychain")
for ((i = 0; i < ${#programs[@]}; i++)); do
  # ${keychain_option[@]+...}: bash 3.2 calls an empty array unbound.
  nv_run codesign --force --sign "$identity" ${keychain_option[@]+"${keychain_option[@]}"} \
    --identifier "${ids[i]}" --options runtime --timestamp "${programs[i]}"
done
for ((i = 0; i < ${#programs[@]}; i++)); do
  nv_run codesign --verify --strict --verbose=2 -R "$(nv_requirement "${ids[i]}" "$team")" "${programs[i]}"
done
$nv_dry_run || echo "signed ${#programs[@]} programs for team $team"
