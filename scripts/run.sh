#!/usr/bin/env bash
# Sets up the machine, builds, and runs the main job.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh release
exec build/release/apps/vksecurity/vksecurity paths "$@"
