#!/usr/bin/env bash
# Configures and builds one tree: scripts/build.sh [release|nopanel|asan|fuzz|coverage]
set -euo pipefail
cd "$(dirname "$0")/.."
flavor=${1:-release}
case "$flavor" in
  release) dir=build/release; flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  # The command-line programs, the monitor and their tests without Qt.
  nopanel) dir=build/nopanel; flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DVK_BUILD_PANEL=OFF) ;;
  asan) dir=build/asan; flags=(-DCMAKE_BUILD_TYPE=Debug -DVK_SANITIZE=ON) ;;
  # The libFuzzer targets of fuzz/ and the core they call (clang; see scripts/fuzz.sh).
  fuzz) dir=build/fuzz; flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DVK_FUZZ=ON
                               -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++) ;;
  # gcov counters for scripts/coverage.sh.
  coverage) dir=build/coverage; flags=(-DCMAKE_BUILD_TYPE=Debug -DVK_COVERAGE=ON) ;;
  *) echo "usage: $0 [release|nopanel|asan|fuzz|coverage]" >&2; exit 2 ;;
esac
# One build at a time on this machine: parallel work trees share two cores.
exec 9>"${TMPDIR:-/tmp}/vksecurity-build.lock"
flock 9
# Warnings are errors in the project's own builds (a packager's build leaves them warnings).
# Set on an existing tree too, so one made before the option existed gets it; the flavor's
# other flags (the compiler among them) are given only when the tree is made.
if [[ -f $dir/build.ninja ]]; then
  cmake "$dir" -DVK_WERROR=ON >/dev/null
else
  cmake -S . -B "$dir" -G Ninja -DVK_WERROR=ON "${flags[@]}" >/dev/null
fi
cmake --build "$dir" --parallel "${VK_JOBS:-$(nproc)}"
