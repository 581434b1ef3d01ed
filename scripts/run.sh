#!/usr/bin/env bash
# Sets up the machine, builds, and runs the main job: a scan of a demo folder that holds
# the standard anti-virus test file, with the packaged signature database.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh release

demo=build/demo
rm -rf "$demo"
mkdir -p "$demo/data" "$demo/files/Downloads"
# The harmless industry test file, put together here so that no copy of it sits in the
# repository.
printf '%s%s%s%s%s' 'X5O!P%@AP[4\PZX54(P^)7CC)7}' '$EI''CAR' '-STANDARD-ANTI''VIRUS' \
  '-TEST-FILE!' '$H+H*' > "$demo/files/Downloads/test-file.com"
echo "an ordinary document" > "$demo/files/Downloads/notes.txt"

export VK_DEFAULTS_FILE="$PWD/$demo/defaults.plist"
set +e
build/release/apps/vksecurity/vksecurity --data-dir "$demo/data" scan "$demo/files" "$@"
status=$?
set -e
if [[ $status -eq 1 ]]; then
  echo "(exit code 1: the test file was found, as expected)"
  exit 0
fi
exit $status
