#!/usr/bin/env bash
# Checks a built package the way an administrator meets it:
#
#   packaging/check-deb.sh build/deb/vksecurity_<version>_<arch>.deb [BUILD_DIR]
#
# Unpacks it into a throwaway root (dpkg -x, nothing is installed on the machine), runs the
# unpacked programs from there (packaging/check-installed.sh), checks that the units and the
# desktop entry are in it and that its dependencies were found (and, given BUILD_DIR, that no
# file names it), validates the desktop entry, and runs lintian, which must report no error.
set -euo pipefail
deb=$(realpath "$1")
here=$(cd "$(dirname "$0")" && pwd)
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
fail() {
  echo "check-deb: $*" >&2
  exit 1
}
dpkg -x "$deb" "$root"
for file in usr/bin/vksecurity usr/bin/vksig usr/lib/systemd/user/vksecurity-monitor.service \
  usr/lib/systemd/user/vksecurity-update.service usr/lib/systemd/user/vksecurity-update.timer \
  usr/share/vksecurity/trojanDB/VkTrojanDB.sql usr/share/doc/vksecurity/copyright; do
  [[ -e $root/$file ]] || fail "$file is not in the package"
done
grep -qx "ExecStart=/usr/bin/vksecurity monitor" \
  "$root/usr/lib/systemd/user/vksecurity-monitor.service" || fail "the unit does not start /usr/bin"
depends=$(dpkg-deb -f "$deb" Depends)
[[ $depends == *libsqlite3* && $depends == *libcurl* ]] || fail "Depends lacks libraries: $depends"
echo "check-deb: Depends: $depends"
shopt -s nullglob
for entry in "$root"/usr/share/applications/*.desktop; do
  desktop-file-validate "$entry" || fail "desktop-file-validate ${entry##*/}"
done
"$here/check-installed.sh" "$root/usr" "${2:+$(realpath "$2")}"
# Errors fail the check; warnings are printed (README.md lists the accepted ones).
lintian --fail-on error --tag-display-limit 0 "$deb" || fail "lintian found errors"
echo "check-deb: $(basename "$deb") passed"
