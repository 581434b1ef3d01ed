#!/usr/bin/env bash
# Builds the Debian package in a tree of its own, with Debian's compiler and linker flags
# (dpkg-buildflags: hardening, reproducible paths) on top of a Release build:
#
#   packaging/build-deb.sh            # prints the path of build/deb/vksecurity_<version>_<arch>.deb
#   VK_WERROR=ON packaging/build-deb.sh   # warnings are errors (scripts/test.sh)
#
# The tests are not built here (the release tree runs them); ccache keeps a rebuild short.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=build/deb
eval "$(dpkg-buildflags --export=sh)"
# CMake reads no CPPFLAGS; Debian's own CMake builds add them to the compiler flags too.
export CFLAGS="$CFLAGS $CPPFLAGS" CXXFLAGS="$CXXFLAGS $CPPFLAGS"
# One build at a time on this machine: parallel work trees share two cores.
exec 9>"${TMPDIR:-/tmp}/vksecurity-build.lock"
flock 9
cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
  -DVK_BUILD_TESTS=OFF -DVK_WERROR="${VK_WERROR:-OFF}" >/dev/null
# Progress to stderr: stdout carries only the path of the package.
cmake --build "$dir" --parallel "${VK_JOBS:-$(nproc)}" >&2
rm -f "$dir"/vksecurity_*.deb
(cd "$dir" && cpack -G DEB >/dev/null)
ls "$dir"/vksecurity_*.deb
