#!/usr/bin/env bash
# Sets up the machine, builds the normal and the sanitizer trees, runs every test in both,
# then runs every fuzz target for 30 seconds (scripts/fuzz.sh): any crash fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
status=0
for flavor in release asan; do
  scripts/build.sh "$flavor"
  echo "== tests ($flavor) =="
  (cd "build/$flavor" && ctest --output-on-failure --parallel "$(nproc)" --timeout 600) || status=1
done
echo "== fuzz targets (30 s each) =="
scripts/fuzz.sh 30 || status=1
exit $status
