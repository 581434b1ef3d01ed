#!/usr/bin/env bash
# The man page and the program agree: every command the program's --help lists has a
# ".\" command: NAME" block in the page and the other way round, and each block lists exactly
# the options of that command's --help (-h/--help aside).
#   man-help-agree.sh PROGRAM MANPAGE
set -uo pipefail
program=$1
page=$2
status=0

# Options a --help text lists (its "Options:" section).
help_options() {
  "$program" "$@" --help | awk '/^Options:/ {on=1; next} /^[^ ]/ {on=0}
    on && match($0, /^  (-[a-zA-Z],)?--[a-z0-9-]+/) {
      s = substr($0, RSTART, RLENGTH); sub(/^ *(-[a-zA-Z],)?/, "", s); print s }' |
    grep -vx -- '--help' | sort -u
}

# Commands below a command, from its --help ("Subcommands:" section), as full paths.
help_commands() {
  local prefix=$*
  "$program" "$@" --help | awk '/^Subcommands:/ {on=1; next} /^[^ ]/ {on=0}
    on && /^  [a-z]/ {print $1}' | while read -r name; do
    local path=${prefix:+$prefix }$name
    echo "$path"
    # shellcheck disable=SC2086
    help_commands $path
  done
}

# Options a man page block lists: the --options on each tag line after .TP.
man_options() {
  awk -v want="$1" '/^\.\\" command:/ {sub(/^\.\\" command: ?/, ""); cur=$0; inblock=(cur==want); next}
    /^\.S[HS] / && !/^\.SH (OPTIONS|COMMANDS)/ {inblock = inblock && 0}
    inblock && tag {gsub(/\\-/, "-"); gsub(/\\f[BIRP]/, ""); if (match($0, /--[a-z0-9-]+/)) print substr($0, RSTART, RLENGTH)}
    {tag = /^\.TP/}' "$page" | sort -u
}

man_commands() {
  sed -n 's/^\.\\" command: \(.\+\)$/\1/p' "$page" | sort -u
}

compare() {
  local what=$1 ours=$2 theirs=$3
  if [[ "$ours" != "$theirs" ]]; then
    echo "MISMATCH $what"
    diff <(echo "$ours") <(echo "$theirs") | sed -n 's/^</  only in --help:/p; s/^>/  only in the man page:/p'
    status=1
  fi
}

commands=$(help_commands | sort -u)
compare "commands" "$commands" "$(man_commands)"
while read -r cmd; do
  # shellcheck disable=SC2086
  compare "options of '$cmd'" "$(help_options $cmd)" "$(man_options "$cmd")"
done < <(echo; echo "$commands")
[[ $status -eq 0 ]] && echo "man page and --help agree: $(basename "$page")"
exit $status
