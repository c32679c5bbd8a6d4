# Completes the options and commands of kestrelctl in bash.

_kestrelctl() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} option=
    if [[ $word == = ]]; then
        option=$before word=
    elif [[ $before == = ]]; then
        option=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    case $option in
    -control)
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        ;;
    '')
        mapfile -t COMPREPLY < <(compgen -W 'status watch stop metrics -port= -control=' -- "$word")
        [[ ${COMPREPLY[0]-} == *= ]] && compopt -o nospace
        ;;
    esac
} && complete -F _kestrelctl kestrelctl
