#!/usr/bin/env bash
# Configures and builds olutil into a build directory.
#   scripts/build.sh [build-dir] [extra cmake arguments...]
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$here/build}
shift || true
"$here/scripts/install-deps.sh" "$@"
cmake -S "$here" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
cmake --build "$dir" -j "$(nproc)"
