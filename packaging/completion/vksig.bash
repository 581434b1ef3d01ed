# bash completion for vksig: commands, their options, and files where an argument names one.
_vksig() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]}
    case $prev in
        --sample | --key)
            compopt -o filenames 2>/dev/null
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            return ;;
        --size | --code | --head-code | --name | --detail | --level | --version | --kill | --date | --serial)
            COMPREPLY=()
            return ;;
    esac
    local i word cmd=""
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case $word in
            --sample | --key | --size | --code | --head-code | --name | --detail | --level | --version | --kill | --date | --serial)
                ((i++)) ;;
            -*) ;;
            *) cmd=$word; break ;;
        esac
    done
    local words
    case $cmd in
        "") words="create add list remove import-hdb info verify keygen publish --version --help" ;;
        create) words="--name --version --help" ;;
        add) words="--sample --size --code --head-code --name --detail --level --version --kill --help" ;;
        list | info) words="--json --help" ;;
        remove) words="--code --help" ;;
        import-hdb) words="--detail --level --version --help" ;;
        publish) words="--date --no-date --key --serial --json --help" ;;
        *) words="--help" ;;
    esac
    if [[ -n $cmd && $cur != -* ]]; then
        # Databases, hash lists, key names and the publishing folder are all paths.
        compopt -o filenames 2>/dev/null
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
    else
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur")
    fi
}
complete -F _vksig vksig
