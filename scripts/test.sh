#!/usr/bin/env bash
# Builds olutil with -Wall -Wextra -Werror and runs every test with CTest.
#   scripts/test.sh [build-dir] [extra cmake arguments...]
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$here/build}
shift || true
"$here/scripts/build.sh" "$dir" -DOLUTIL_WERROR=ON "$@"
cd "$dir"
ctest --output-on-failure -j "$(nproc)" --timeout 300
