#!/usr/bin/env bash
# Saves a picture of every screen of the panel, in English and in German, drawn offscreen:
# build/<flavor>/screenshots/<language>/<screen>.png. Builds the tree first if needed.
#   scripts/screenshots.sh [release|asan]
set -euo pipefail
cd "$(dirname "$0")/.."
flavor=${1:-release}
dir=build/$flavor
if [[ ! -x $dir/tests/vk_panel_tests ]]; then
  scripts/build.sh "$flavor"
fi
# The panel's look test walks every screen in both languages and saves each one.
QT_QPA_PLATFORM=offscreen "$dir/tests/vk_panel_tests" \
  --gtest_filter='Languages/VkPanelLookTest.EveryScreenShowsOnlyTextsOfTheStringsTable/*'
for language in en de; do
  echo "$language:"
  ls -1 "$dir/screenshots/$language"/*.png | sed 's/^/  /'
done
