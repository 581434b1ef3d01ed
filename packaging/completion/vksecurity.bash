# bash completion for vksecurity: commands, their options, and files or folders where an
# argument names one.
_vksecurity() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    local globals="--root --data-dir --user --home --json --version --help"
    case $prev in
        --root | --data-dir | --home | --watch | --unwatch)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -d -- "$cur")
            return ;;
        --user)
            mapfile -t COMPREPLY < <(compgen -u -- "$cur")
            return ;;
        --file-list)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            return ;;
        --settle | --keep-days | --server | --jobs | --exclude | --exclude-dir)
            COMPREPLY=()
            return ;;
    esac
    # The command (and a trust/quarantine action) named so far; option values are skipped.
    local i word cmd="" action=""
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case $word in
            --root | --data-dir | --user | --home | --watch | --unwatch | --settle | --keep-days | --server | \
            --jobs | --exclude | --exclude-dir | --file-list)
                ((i++)) ;;
            -*) ;;
            *)
                if [[ -z $cmd ]]; then
                    cmd=$word
                elif [[ -z $action ]]; then
                    action=$word
                fi ;;
        esac
    done
    local words="" files=""
    case $cmd in
        "") words="scan trust logs quarantine update db monitor paths $globals" ;;
        scan) words="--full --quick --pace --remove --quarantine --trust --jobs --no-cache
                     --no-archives --exclude --exclude-dir --file-list --json --help"
            files=yes ;;
        trust)
            case $action in
                "") words="list remove --json --help" ;;
                remove) words="--json --help"; files=yes ;;
                *) words="--json --help" ;;
            esac ;;
        quarantine)
            [[ -z $action ]] && words="list restore delete --json --help" || words="--json --help" ;;
        logs) words="--clear --monitor --keep-days --json --help" ;;
        update) words="--server --allow-unsigned --json --help" ;;
        monitor) words="--watch --unwatch --settle --status --start --stop --json --help" ;;
        *) words="--json --help" ;;
    esac
    if [[ -n $files && $cur != -* ]]; then
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
    else
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur")
    fi
}
complete -F _vksecurity vksecurity
