# shellcheck shell=bash disable=SC2034 # the names are for the scripts that source this
# What the macOS install, uninstall, signing and package scripts share (the
# package's preinstall and postinstall too): the names of what the install
# creates, the manifest reader, the embedded Info.plist reader, the code
# signing requirements, and one way to run a command or, when dry, print it.
#
# Sourced, never run. Written for the bash that macOS ships (3.2): no
# associative arrays, no mapfile, no empty arrays under `set -u`.

# IMPORTANT: these names must match AdminConstants (admin_protocol/) and the
# paths of install.manifest.in.
readonly NV_LABEL=com.tarnwick.Netvane.admin
readonly NV_JOB_PLIST=/Library/LaunchDaemons/$NV_LABEL.plist
readonly NV_PAIR_RIGHT=com.tarnwick.Netvane.admin.pair
readonly NV_SUPPORT_DIR="/Library/Application Support/Netvane"
readonly NV_RULE="$NV_SUPPORT_DIR/$NV_PAIR_RIGHT.plist"
readonly NV_MANIFEST="$NV_SUPPORT_DIR/install.manifest"
readonly NV_STATE_DIR="/Library/Application Support/NetvaneAdmin"
readonly NV_PACKAGE_ID=com.tarnwick.Netvane.pkg
readonly NV_APP_ID=com.tarnwick.Netvane
readonly NV_CONTROL_ID=com.tarnwick.Netvane.Admin

nv_dry_run=false

nv_fail() {
  echo "${0##*/}: $*" >&2
  exit 1
}

# A command as one line that a shell reads back as the same words.
nv_quote() {
  local line
  printf -v line '%q ' "$@"
  echo "${line% }"
}

# Runs a command, or prints it when dry.
nv_run() {
  if $nv_dry_run; then nv_quote "$@"; else "$@"; fi
}

# nv_run_from FILE COMMAND...: the same, with standard input from FILE.
nv_run_from() {
  local file=$1
  shift
  if $nv_dry_run; then
    echo "$(nv_quote "$@") < $(nv_quote "$file")"
  else
    "$@" <"$file"
  fi
}

# A line for the reader, set apart from the commands when dry.
nv_note() {
  if $nv_dry_run; then echo "# $*"; else echo "$*"; fi
}

# Only a Mac's root may change its system; a dry run may go anywhere.
nv_require_system() {
  $nv_dry_run && return 0
  [[ $(uname -s) == Darwin ]] || nv_fail "this changes the system of a Mac: run it on macOS (or try --dry-run)"
  [[ $(id -u) -eq 0 ]] || nv_fail "run it as root (sudo)"
}

# nv_read_manifest FILE: one array element per entry, in the file's order:
# nv_modes, nv_owners, nv_groups, nv_ids ("-" when not signed), nv_paths
# (absolute; a directory ends in "/").
nv_read_manifest() {
  local file=$1 mode owner group id path mode_pattern='^0[0-7]{3}$'
  nv_modes=() nv_owners=() nv_groups=() nv_ids=() nv_paths=()
  [[ -f $file ]] || nv_fail "no manifest at $file"
  while read -r mode owner group id path; do
    [[ -z $mode || $mode == \#* ]] && continue
    if ! [[ $mode =~ $mode_pattern && -n $owner && -n $group && -n $id && $path == /* ]]; then
      nv_fail "$file: not an entry: $mode $owner $group $id $path"
    fi
    # A path that climbs could name anything on the system.
    case "$path/" in */../* | */./* | *//*/) nv_fail "$file: not a plain path: $path" ;; esac
    nv_modes+=("$mode") nv_owners+=("$owner") nv_groups+=("$group") nv_ids+=("$id") nv_paths+=("$path")
  done <"$file"
  ((${#nv_paths[@]} > 0)) || nv_fail "$file lists nothing"
}

# nv_check_stage STAGE: the stage holds exactly what its manifest lists (read
# with nv_read_manifest first): every file, and no file besides.
nv_check_stage() {
  local stage=$1 i path found listed
  for ((i = 0; i < ${#nv_paths[@]}; i++)); do
    path=${nv_paths[i]}
    if [[ $path == */ ]]; then
      [[ -d $stage$path && ! -L $stage${path%/} ]] || nv_fail "$stage has no directory ${path%/}"
    else
      [[ -f $stage$path && ! -L $stage$path ]] || nv_fail "$stage has no file $path"
    fi
  done
  while IFS= read -r found; do
    listed=false
    for path in "${nv_paths[@]}"; do
      [[ ${found#"$stage"} == "$path" ]] && listed=true
    done
    $listed || nv_fail "$stage holds ${found#"$stage"}, which its manifest does not list"
  done < <(find "$stage" ! -type d)
}

# nv_is_macho FILE: a Mach-O program, thin (64-bit) or universal.
nv_is_macho() {
  local magic
  magic=$(od -An -tx1 -N4 "$1" | tr -d ' \n')
  [[ $magic == cffaedfe || $magic == cafebabe ]]
}

# nv_embedded_value PROGRAM KEY: the string under KEY in the Info.plist that
# PROGRAM carries (a universal program carries one per architecture, the same).
nv_embedded_value() {
  LC_ALL=C tr -d '\n\t\r ' <"$1" | { LC_ALL=C grep -a -o "<key>$2</key><string>[^<]*</string>" || true; } |
    sed -n -e '1s/.*<string>\(.*\)<\/string>/\1/p'
}

# nv_requirement IDENTIFIER TEAM: the code-signing requirement, as `codesign
# -R` takes its text, that the program signed as IDENTIFIER must meet. The
# clients' are the very texts the daemon sets on its two services; the
# daemon's own asks for the team's Developer ID.
nv_requirement() {
  local developer_id="anchor apple generic and certificate 1[field.1.2.840.113635.100.6.2.6] and certificate leaf[field.1.2.840.113635.100.6.1.13] and certificate leaf[subject.OU] = \"$2\""
  case $1 in
    "$NV_APP_ID")
      echo "=(anchor apple generic and certificate leaf[field.1.2.840.113635.100.6.1.9] or $developer_id) and identifier \"$1\"" ;;
    "$NV_CONTROL_ID" | "$NV_LABEL")
      echo "=$developer_id and identifier \"$1\"" ;;
    *) nv_fail "no requirement is known for a program signed as $1" ;;
  esac
}

# The daemon's job: stopped when loaded, then started from its file.
nv_job_stop() {
  if $nv_dry_run; then
    nv_note "when the job is loaded:"
    nv_quote launchctl bootout "system/$NV_LABEL"
  elif launchctl print "system/$NV_LABEL" >/dev/null 2>&1; then
    launchctl bootout "system/$NV_LABEL"
    # A job still on its way out makes the next bootstrap fail; 10 s at most.
    local tries=0
    while launchctl print "system/$NV_LABEL" >/dev/null 2>&1 && ((tries++ < 50)); do sleep 0.2; done
  fi
}

nv_job_start() {
  # A job once disabled stays so across installs until enabled.
  nv_run launchctl enable "system/$NV_LABEL"
  nv_run launchctl bootstrap system "$NV_JOB_PLIST"
}

# The pair right: the daemon checks it without asking anyone, so it must
# exist, with a rule that has the control program ask for an administrator.
nv_right_register() {
  nv_run_from "$NV_RULE" security authorizationdb write "$NV_PAIR_RIGHT"
}

nv_right_remove() {
  nv_run security authorizationdb remove "$NV_PAIR_RIGHT"
}
