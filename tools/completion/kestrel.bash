# Completes the options of kestrel in bash.

_kestrel() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} option=
    if [[ $word == = ]]; then
        option=$before word=
    elif [[ $before == = ]]; then
        option=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    [[ $word == "~"* ]] && return # bash leaves it as it is, and no file is called so
    case $option in
    -log | -vlog | -startup | -control)
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        ;;
    '')
        mapfile -t COMPREPLY < <(compgen -W '-port -port= -startup -startup= -log -log= -vlog -vlog= -detach -listen= -allow= -control= -control-group= -server?' -- "$word")
        [[ ${COMPREPLY[0]-} == *= ]] && compopt -o nospace
        ;;
    esac
} && complete -F _kestrel kestrel
