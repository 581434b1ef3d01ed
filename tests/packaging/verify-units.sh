#!/usr/bin/env bash
# Checks the systemd user units as systemd would load them: every unit of packaging/systemd,
# pointed at the built program, must verify without a complaint. Skips (77) when
# systemd-analyze is not installed.
set -uo pipefail
source_dir=$1
program=$2
if ! command -v systemd-analyze >/dev/null; then
  echo "systemd-analyze not installed"
  exit 77
fi
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
units=()
for unit in "$source_dir"/packaging/systemd/*.service "$source_dir"/packaging/systemd/*.timer; do
  sed "s#/usr/local/bin/vksecurity#$program#g" "$unit" >"$work/$(basename "$unit")"
  units+=("$work/$(basename "$unit")")
done
# A unit systemd cannot use fails; one it loads while ignoring a line only warns, so any
# output counts as a failure too.
complaints=$(systemd-analyze verify --man=no "${units[@]}" 2>&1)
status=$?
if [[ $status -ne 0 || -n $complaints ]]; then
  echo "$complaints"
  exit 1
fi
echo "verified: ${units[*]##*/}"
