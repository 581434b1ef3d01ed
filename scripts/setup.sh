#!/usr/bin/env bash
# Installs every Debian package the project needs. Idempotent, no prompts.
# Runs as root (or through sudo when it is available).
set -euo pipefail

packages=(
  build-essential cmake ninja-build ccache pkg-config git
  libsqlite3-dev sqlite3 libssl-dev libplist-dev libcurl4-openssl-dev
  libcli11-dev libcpp-httplib-dev nlohmann-json3-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  qt6-base-dev qt6-svg-dev libgl-dev
  libarchive-dev liblzma-dev zlib1g-dev
  clang libclang-rt-14-dev
  systemd
  # The Debian package (packaging/build-deb.sh) and its checks in scripts/test.sh.
  dpkg-dev lintian desktop-file-utils
)
# Extra groups, asked for by the scripts that need them.
if [[ " $* " == *" --coverage "* ]]; then
  packages+=(gcovr)
fi
if [[ " $* " == *" --bench "* ]]; then
  packages+=(clamav time python3)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if ((${#missing[@]} == 0)); then
  exit 0
fi

as_root=()
if [[ $(id -u) -ne 0 ]]; then
  as_root=(sudo)
fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -qq
"${as_root[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
