#!/usr/bin/env bash
# Runs an installed tree from wherever it now is, as a user of the package would:
#
#   packaging/check-installed.sh PREFIX [BUILD_DIR]
#
# PREFIX holds bin/, share/, lib/ (an install moved elsewhere, or usr/ of an unpacked .deb).
# Fails when a program reaches for files outside PREFIX, when an installed file names
# BUILD_DIR, when the standard test file is not found by a scan from PREFIX, or when the
# panel host hangs or fails. Writes only into a temporary folder.
set -euo pipefail
prefix=$(cd "$1" && pwd)
build=${2:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() {
  echo "check-installed: $*" >&2
  exit 1
}
# Nothing of the caller's own settings or data folder is read or changed.
export HOME=$work/home VK_DATA_DIR=$work/data VK_DEFAULTS_FILE=$work/defaults.plist
export XDG_CONFIG_HOME=$work/home/.config XDG_DATA_HOME=$work/home/.local/share
unset VK_RESOURCE_DIR VK_MONITOR_PROGRAM
mkdir -p "$HOME" "$work/files"

if [[ -n $build ]] && hits=$(grep -rlF --binary-files=text "$build" "$prefix"); then
  fail "installed files name the build folder $build: $hits"
fi

"$prefix/bin/vksecurity" --version | grep -q '^vksecurity [0-9]' || fail "vksecurity --version"
"$prefix/bin/vksig" --version | grep -q '^vksig [0-9]' || fail "vksig --version"
resources=$("$prefix/bin/vksecurity" paths | sed -n 's/^resources: *//p')
[[ $resources == "$prefix/share/vksecurity" ]] ||
  fail "resources at '$resources', not in $prefix/share/vksecurity"

# The harmless industry test file, put together here so that no copy of it is stored.
printf '%s%s%s%s%s' 'X5O!P%@AP[4\PZX54(P^)7CC)7}' '$EI''CAR' '-STANDARD-ANTI''VIRUS' \
  '-TEST-FILE!' '$H+H*' >"$work/files/test-file.com"
echo "an ordinary document" >"$work/files/notes.txt"
status=0
output=$("$prefix/bin/vksecurity" scan "$work/files" 2>&1) || status=$?
[[ $status -eq 1 && $output == *"$work/files/test-file.com: "*" FOUND"* ]] ||
  fail "scan from $prefix (exit $status): $output"
[[ $output != *"notes.txt: "*FOUND* ]] || fail "scan flagged a clean file: $output"
echo "check-installed: vksecurity from $prefix found the test file"

if [[ -x $prefix/bin/vkpanelhost ]]; then
  # --version and --help need no display.
  env -u DISPLAY -u WAYLAND_DISPLAY "$prefix/bin/vkpanelhost" --version |
    grep -q '^vkpanelhost [0-9]' || fail "vkpanelhost --version"
  env -u DISPLAY -u WAYLAND_DISPLAY "$prefix/bin/vkpanelhost" --help |
    grep -q '^Usage: vkpanelhost ' || fail "vkpanelhost --help does not name the program"
  export QT_QPA_PLATFORM=offscreen
  # A plug-in that cannot be loaded is an error on stderr, never a dialog nobody can close.
  status=0
  timeout 60 "$prefix/bin/vkpanelhost" --library "$work/none.so" --screenshot "$work/x.png" \
    >/dev/null 2>"$work/host.err" || status=$?
  [[ $status -eq 2 ]] && grep -q "Cannot load the panel" "$work/host.err" ||
    fail "vkpanelhost with a bad --library exited $status (124: it hung)"
  # The host finds the installed plug-in and draws the panel.
  status=0
  timeout 120 "$prefix/bin/vkpanelhost" --screenshot "$work/panel.png" >/dev/null \
    2>"$work/host.err" || status=$?
  [[ $status -eq 0 && -s $work/panel.png ]] ||
    fail "vkpanelhost --screenshot exited $status: $(cat "$work/host.err")"
  echo "check-installed: vkpanelhost from $prefix loaded its plug-in"
fi
