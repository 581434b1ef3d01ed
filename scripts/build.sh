#!/usr/bin/env bash
# Configures and builds one tree: scripts/build.sh [release|asan]
set -euo pipefail
cd "$(dirname "$0")/.."
flavor=${1:-release}
case "$flavor" in
  release) dir=build/release; flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
  asan) dir=build/asan; flags=(-DCMAKE_BUILD_TYPE=Debug -DVK_SANITIZE=ON) ;;
  *) echo "usage: $0 [release|asan]" >&2; exit 2 ;;
esac
# One build at a time on this machine: parallel work trees share two cores.
exec 9>"${TMPDIR:-/tmp}/vksecurity-build.lock"
flock 9
if [[ ! -f $dir/build.ninja ]]; then
  cmake -S . -B "$dir" -G Ninja "${flags[@]}" >/dev/null
fi
cmake --build "$dir" --parallel "${VK_JOBS:-$(nproc)}"
