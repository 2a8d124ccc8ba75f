# Completion of tkctl for bash. tkctl itself knows what may follow.
_tkctl() {
    local -a words
    local line=${COMP_LINE:0:COMP_POINT} offer
    COMPREPLY=()
    read -ra words <<<"$line"
    [[ $line == *[[:blank:]] ]] && words+=("")
    local last=${words[-1]}
    # The shell splits words at these characters, and replaces only what follows them.
    local kept=${last%"${last##*[=:]}"}
    if [[ ${words[-2]} == --socket || ${words[-2]} == --config ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$last")
        return
    fi
    while IFS=$'\t' read -r offer _; do
        COMPREPLY+=("${offer#"$kept"}")
        [[ $offer == *= ]] && compopt -o nospace
    done < <("${words[0]}" __complete "${words[@]:1}" 2>/dev/null)
}
complete -F _tkctl tkctl
