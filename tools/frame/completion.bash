# Completion for halvo-qm, halvo-send, halvo-recv, halvo-fq, halvo-mon and halvo-relay. What the programs know
# themselves is asked of them: subcommands and options from --help, channels from the segment.

# Prints the words of a --help text: subcommands for "subcommands", else options.
_halvo_words() {
    awk -v want="$1" '
        /^[A-Z]/ { section = tolower($1) }
        /^  [^ ]/ && section == want ":" {
            if (want == "subcommands") { print $1; next }
            n = split($1, names, ",")
            for (i = 1; i <= n; i++) { sub(/[{:].*/, "", names[i]); print names[i] }
        }'
}

_halvo() {
    local program=$1 word=$2 previous=$3 i key= subcommand= subcommands
    COMPREPLY=()
    subcommands=$("$program" --help 2>/dev/null | _halvo_words subcommands)
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        -k | --key) key=${COMP_WORDS[i + 1]-} ;;
        *) grep -qxF -- "${COMP_WORDS[i]}" <<<"$subcommands" && subcommand=${COMP_WORDS[i]} ;;
        esac
    done
    case $previous in
    -k | --key | -o | --output | -f | --options | -s | --snapshot | --from | --limits)
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        return
        ;;
    --color) mapfile -t COMPREPLY < <(compgen -W "auto always never" -- "$word") && return ;;
    --held) mapfile -t COMPREPLY < <(compgen -W "reader writer both none" -- "$word") && return ;;
    --end) mapfile -t COMPREPLY < <(compgen -W "reader writer both" -- "$word") && return ;;
    esac
    if [[ $word == -* ]]; then
        local options
        options=$({ "$program" --help; [ -z "$subcommand" ] || "$program" "$subcommand" --help; } \
            2>/dev/null | _halvo_words options)
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
    elif [[ $subcommands && -z $subcommand ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$subcommands" -- "$word")
    else
        local channels=
        [ -n "$key" ] && channels=$(halvo-qm list --key "$key" 2>/dev/null | awk 'NR > 1 {print $2}')
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -W "$channels" -- "$word"; compgen -f -- "$word")
    fi
}
complete -F _halvo halvo-qm halvo-send halvo-recv halvo-fq halvo-mon halvo-relay
