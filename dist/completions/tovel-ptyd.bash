# bash completion for tovel-ptyd and tovel-shellsess: commands, their
# options, and the ids of live sessions (from `tovel-ptyd list`).

_tovel_ptyd_sessions() {
    "$1" list 2>/dev/null | while read -r id _; do printf '%s\n' "$id"; done
}

_tovel_ptyd() {
    local cur prev words cword
    if declare -F _init_completion >/dev/null; then
        _init_completion || return
    else
        cur=${COMP_WORDS[COMP_CWORD]}
        prev=${COMP_WORDS[COMP_CWORD - 1]}
        words=("${COMP_WORDS[@]}")
        cword=$COMP_CWORD
    fi
    local program=${words[0]}
    local commands="new list attach ensure inspect preflight kill connect serve doctor --version --help"

    if ((cword == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$cur")
        return
    fi

    case $prev in
        --dir | --cwd)
            mapfile -t COMPREPLY < <(compgen -d -- "$cur")
            return
            ;;
        --cmd)
            mapfile -t COMPREPLY < <(compgen -c -- "$cur")
            return
            ;;
        --session)
            mapfile -t COMPREPLY < <(compgen -W "$(_tovel_ptyd_sessions "$program")" -- "$cur")
            return
            ;;
        --cols | --rows | --port | --idle-timeout | --workspace-id | --replica-id | \
            --lease-generation | --migration-id | --agent-kind | --adapter-id | --executable)
            return
            ;;
    esac

    local command=${words[1]} options=""
    case $command in
        attach | inspect | kill | ensure)
            if ((cword == 2)); then
                mapfile -t COMPREPLY < <(compgen -W "$(_tovel_ptyd_sessions "$program")" -- "$cur")
                return
            fi
            ;;
        serve)
            if [[ $cur != -* ]]; then
                mapfile -t COMPREPLY < <(compgen -d -- "$cur")
                return
            fi
            ;;
    esac
    case $command in
        new) options="--cols --rows --cmd --cwd --dir" ;;
        ensure) options="--cols --rows --cmd --cwd --workspace-id --replica-id --lease-generation --migration-id --agent-kind --adapter-id --dir" ;;
        connect) options="--cols --rows --dir" ;;
        list | inspect | doctor) options="--json --dir" ;;
        attach) options="--dir" ;;
        kill) options="--force --dir" ;;
        preflight) options="--session --cwd --executable --json --dir" ;;
        serve) options="--port --browser --browse-mode --idle-timeout" ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
}

complete -F _tovel_ptyd tovel-ptyd tovel-shellsess
