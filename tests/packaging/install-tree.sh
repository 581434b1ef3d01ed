#!/usr/bin/env bash
# Installs the build tree into a temporary prefix, checks the units' prefix, moves the tree
# and runs it from its new place (packaging/check-installed.sh).
#
#   tests/packaging/install-tree.sh BUILD_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/first" --strip >/dev/null
unit=$work/first/lib/systemd/user/vksecurity-monitor.service
grep -qx "ExecStart=$work/first/bin/vksecurity monitor" "$unit" || {
  echo "install-tree: $unit does not start $work/first/bin/vksecurity" >&2
  exit 1
}
mv "$work/first" "$work/moved"
"$source_dir/packaging/check-installed.sh" "$work/moved" "$build"
