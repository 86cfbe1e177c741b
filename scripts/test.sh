#!/usr/bin/env bash
# Builds olutil with -Wall -Wextra -Werror and runs every test with CTest.
#   scripts/test.sh [build-dir] [extra cmake arguments...]
# The build directory may have been configured before (scripts/run-main.sh configures
# build/ without tests): the options that decide what is built and tested are given
# again here, so the tests are always built and run; extra arguments come after them.
# CTest fails when it finds no test.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$here/build}
shift || true
"$here/scripts/build.sh" "$dir" -DOLUTIL_WERROR=ON -DOLUTIL_BUILD_TESTS=ON -DOLUTIL_BUILD_TOOLS=ON \
   -DOLUTIL_BUILD_BENCH=ON -DOLUTIL_ONLY= "$@"
cd "$dir"
ctest --output-on-failure --no-tests=error -j "$(nproc)" --timeout 300
