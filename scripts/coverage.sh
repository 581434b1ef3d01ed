#!/usr/bin/env bash
# Line coverage of src/ by the whole test suite: builds the coverage tree, runs every test
# once and prints gcovr's summary (the figure the project tracks is "lines").
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh --coverage
scripts/build.sh coverage
find build/coverage -name '*.gcda' -delete
(cd build/coverage && ctest --parallel "$(nproc)" --timeout 600 >/dev/null) || {
  echo "coverage: some tests failed; figures below are from a red run" >&2
}
gcovr --root . --filter 'src/' --object-directory build/coverage --print-summary \
  --gcov-ignore-parse-errors \
  --txt build/coverage/coverage.txt | tail -3
