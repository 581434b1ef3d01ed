#!/usr/bin/env bash
# The bash completion loads in a plain bash and offers what the programs have: the commands
# of each program's --help, a command's options, and files where an argument is a path.
#   bash-completion.sh COMPLETION_DIR VKSECURITY VKSIG
set -uo pipefail
dir=$1
declare -A programs=([vksecurity]=$2 [vksig]=$3)
status=0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
touch "$work/sample.bin"

# What the completion offers for a command line whose last word is being typed.
offers() {
  local name=$1
  shift
  bash --norc --noprofile -c 'source "$1" || exit 1; fn=$2; shift 2; COMP_WORDS=("$@")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "$fn"; printf "%s\n" "${COMPREPLY[@]}"' \
    _ "$dir/$name.bash" "_$name" "$name" "$@" | sort
}

expect() {
  local what=$1 want=$2 got=$3
  if [[ "$want" != "$got" ]]; then
    echo "MISMATCH $what"
    diff <(echo "$want") <(echo "$got")
    status=1
  fi
}

for name in vksecurity vksig; do
  commands=$("${programs[$name]}" --help |
    awk '/^Subcommands:/ {on=1; next} /^[^ ]/ {on=0} on && /^  [a-z]/ {print $1}' | sort)
  expect "$name commands" "$commands" "$(offers "$name" "" | grep -v '^-')"
done
expect "trust actions" "$(printf 'list\nremove')" "$(offers vksecurity trust "" | grep -v "^-")"
expect "scan options" "$(printf -- '--quarantine\n--quick')" "$(offers vksecurity scan --qu)"
expect "scan paths" "$work/sample.bin" "$(offers vksecurity --json scan "$work/sam")"
expect "--data-dir folders" "$work" "$(offers vksecurity --data-dir "$work")"
expect "vksig add --sample" "$work/sample.bin" "$(offers vksig add x.sql --sample "$work/s")"
# The zsh functions at least parse, where zsh is installed.
if command -v zsh >/dev/null; then
  for file in "$dir"/_vksecurity "$dir"/_vksig; do
    zsh -n "$file" || { echo "zsh cannot parse $file"; status=1; }
  done
fi
[[ $status -eq 0 ]] && echo "bash completion offers the commands, options and files"
exit $status
