#!/usr/bin/env bash
# Sets up the machine, builds the normal and the sanitizer trees, runs every test in both.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
status=0
for flavor in release asan; do
  scripts/build.sh "$flavor"
  echo "== tests ($flavor) =="
  (cd "build/$flavor" && ctest --output-on-failure --parallel "$(nproc)" --timeout 600) || status=1
done
exit $status
