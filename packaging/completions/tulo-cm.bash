# Completion of tulo-cm in bash. The program knows what fits; it quotes what is inserted and leaves
# out what bash does not replace, as bash splits words at more characters than blanks.
_tulo_cm()
{
    local -a lines
    [[ $3 != *[\<\>]* ]] || { compopt -o default; return; }
    mapfile -t lines < <(command tulo-cm complete --bash "${COMP_LINE:0:COMP_POINT}" "$2" 2>/dev/null)
    case ${lines[0]-} in
    :files) compopt -o default ;;
    :directories) compopt -o dirnames ;;
    *) COMPREPLY=("${lines[@]%%$'\t'*}") ;;
    esac
    # A second Tab lists the words and inserts none.
    [[ $COMP_TYPE != 63 || ${#lines[@]} = 1 ]] || COMPREPLY=("${lines[@]/$'\t'/  -- }")
    [[ ${COMPREPLY[0]-} != *[/=] ]] || compopt -o nospace
}
complete -F _tulo_cm tulo-cm
