#!/usr/bin/env bash
# Fails when a source folder of the core includes a folder on a higher floor.
# Usage: scripts/check-layers.sh SRC_DIR FLOOR... (lowest floor first)
set -euo pipefail
src=$1
shift
floors=("$@")
status=0
for ((i = 0; i < ${#floors[@]}; i++)); do
  floor=${floors[i]}
  [[ -d $src/$floor ]] || continue
  for ((j = i + 1; j < ${#floors[@]}; j++)); do
    higher=${floors[j]}
    if hits=$(grep -rn --include='*.h' --include='*.cpp' "#include \"$higher/" "$src/$floor"); then
      echo "layers: $floor must not include $higher (a higher floor):" >&2
      echo "$hits" >&2
      status=1
    fi
  done
  # Nothing of the core includes the Qt panel.
  if hits=$(grep -rn --include='*.h' --include='*.cpp' -e '#include "panel/' -e '#include <Q' "$src/$floor"); then
    echo "layers: $floor must not include the panel or Qt:" >&2
    echo "$hits" >&2
    status=1
  fi
done
exit $status
