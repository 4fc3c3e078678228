# bash completion for vaultctl
# shellcheck shell=bash

_vaultctl() {
    # shellcheck disable=SC2034  # set and read by _init_completion
    local cur prev words cword split
    _init_completion -s || return
    local word command=
    for word in "${words[@]:1:cword-1}"; do
        case $word in
            encrypt | decrypt | undo | status | repair | forget) command=$word ;;
            check) command=${command:-check} ;;
        esac
    done
    if [[ $prev == --worker ]]; then
        _filedir
        return
    fi
    if [[ $cur == -* ]]; then
        local options='--worker= --verbose --quiet --json --help --version'
        [[ $command != encrypt && $command != decrypt ]] || options+=' --allow-plain --replace --drop-attributes'
        [[ $command != encrypt || " ${words[*]} " == *' check '* ]] || options+=' --discard'
        [[ $command != repair ]] || options+=' --as-it-is'
        [[ $command != forget ]] || options+=' --yes'
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
        [[ ${COMPREPLY[*]} != *= ]] || compopt -o nospace
        return
    fi
    case $command in
        '') mapfile -t COMPREPLY < <(compgen -W 'encrypt decrypt undo check status repair forget' -- "$cur") ;;
        check) mapfile -t COMPREPLY < <(compgen -W 'encrypt decrypt' -- "$cur") ;;
        *) _filedir -d ;;
    esac
} && complete -F _vaultctl vaultctl
