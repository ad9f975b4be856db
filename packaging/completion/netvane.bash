# bash completion for netvane and netvane-admind
#
# The grammar is data. A new command is one word in _netvane_words[netvane]
# and one line in _netvane_options; subcommands, operands and option values
# have their own tables. The tables are global (-g): bash-completion loads
# this file from inside a function.

# The words that may follow a command path.
declare -gA _netvane_words=(
    [netvane]="admin history plist public-ip services status top tunnels watch watch-config"
    [admin]="app control"
    ["admin app"]="status pair set-service unpair tunnels"
    ["admin control"]="status pending approve deny unpair-all"
    [history]="show chart"
    [plist]="show convert"
)

# The operands after a complete command path, one kind per operand: file,
# dir, "-" (nothing to offer) or alternatives joined by "|".
declare -gA _netvane_operands=(
    ["admin app set-service"]="- on|off"
    ["admin control approve"]="-"
    ["admin control deny"]="-"
    ["history show"]="file"
    ["history chart"]="file"
    ["plist show"]="file"
    ["plist convert"]="file"
)

# The options of each command, wherever they stand after its name.
declare -gA _netvane_options=(
    [admin]="--runtime-dir --timeout --token --token-file --json"
    [history]="--period --now --interface -o --json"
    [plist]="--xml --json --to -o"
    [public-ip]="--provider --url --json-key-path --json"
    [services]="--json"
    [status]="--json"
    [top]="--interval --history"
    [tunnels]="--json"
    [watch]="--interval --count --history --json"
    [watch-config]="--count --json"
)

# Options that take a value, and its kind (as for operands).
declare -gA _netvane_values=(
    [--count]="-"
    [--history]="file"
    [--interface]="-"
    [--interval]="-"
    [--json-key-path]="-"
    [--now]="-"
    [--period]="-"
    [--provider]="echoPrimary|echoSecondary"
    [--runtime-dir]="dir"
    [--state-dir]="dir"
    [--timeout]="-"
    [--to]="binary|xml"
    [--token]="-"
    [--token-file]="file"
    [--url]="-"
    [-o]="file"
)

_netvane_offer() {
    local kind=$1 cur=$2
    case $kind in
    file)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        ;;
    dir)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -d -- "$cur")
        ;;
    -) COMPREPLY=() ;;
    *) mapfile -t COMPREPLY < <(compgen -W "${kind//|/ }" -- "$cur") ;;
    esac
}

_netvane() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    COMPREPLY=()
    if ((COMP_CWORD > 1)) && [[ -n ${_netvane_values[$prev]+set} ]]; then
        _netvane_offer "${_netvane_values[$prev]}" "$cur"
        return
    fi

    # Follow the words typed so far: known words extend the command path,
    # the rest are operands; options and their values are skipped. After
    # "--" every word is an operand, as the commands read them.
    local path="" word i operands=0 ended=""
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ -z $ended && $word == -- ]]; then
            ended=1
            continue
        fi
        if [[ -z $ended && $word == -?* ]]; then
            [[ -n ${_netvane_values[$word]+set} ]] && ((i++))
            continue
        fi
        if [[ -n ${_netvane_words[${path:-netvane}]+set} ]]; then
            path="${path:+$path }$word"
        else
            ((operands++))
        fi
    done

    local command=${path%% *}
    if [[ -z $ended && $cur == -* ]]; then
        if [[ -n $command ]]; then
            mapfile -t COMPREPLY < <(compgen -W "${_netvane_options[$command]-} --help" -- "$cur")
        else
            mapfile -t COMPREPLY < <(compgen -W "--help --version" -- "$cur")
        fi
        return
    fi
    if [[ -n ${_netvane_words[${path:-netvane}]+set} ]]; then
        _netvane_offer "${_netvane_words[${path:-netvane}]// /|}" "$cur"
        return
    fi
    local kinds
    read -ra kinds <<<"${_netvane_operands[$path]-}"
    _netvane_offer "${kinds[operands]:--}" "$cur"
}

_netvane_admind() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    COMPREPLY=()
    case $prev in
    --state-dir | --runtime-dir) _netvane_offer dir "$cur" ;;
    *) mapfile -t COMPREPLY < <(compgen -W "--state-dir --runtime-dir --foreground --help" -- "$cur") ;;
    esac
}

complete -F _netvane netvane
complete -F _netvane_admind netvane-admind
