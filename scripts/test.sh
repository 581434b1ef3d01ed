#!/usr/bin/env bash
# Sets up the machine, builds the normal, the Qt-less and the sanitizer trees, runs every
# test in each, builds the Debian package and checks it unpacked (packaging/check-deb.sh),
# then runs every fuzz target for 30 seconds (scripts/fuzz.sh): any crash fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
status=0
for flavor in release nopanel asan; do
  scripts/build.sh "$flavor"
  echo "== tests ($flavor) =="
  (cd "build/$flavor" && ctest --output-on-failure --parallel "$(nproc)" --timeout 600) || status=1
done
echo "== Debian package =="
if deb=$(VK_WERROR=ON packaging/build-deb.sh); then
  packaging/check-deb.sh "$deb" "$(dirname "$deb")" || status=1
else
  status=1
fi
echo "== fuzz targets (30 s each) =="
scripts/fuzz.sh 30 || status=1
exit $status
