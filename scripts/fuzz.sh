#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each over its kept corpus.
#   scripts/fuzz.sh [build-dir] [seconds per target]
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$here/build-fuzz}
seconds=${2:-60}
options=(-DOLUTIL_BUILD_FUZZ=ON -DOLUTIL_BUILD_TESTS=OFF -DOLUTIL_BUILD_TOOLS=OFF -DOLUTIL_BUILD_BENCH=OFF)
"$here/scripts/install-deps.sh" "${options[@]}"
CXX=clang++ cmake -S "$here" -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "${options[@]}" >/dev/null
cmake --build "$dir" -j "$(nproc)"
for target in "$dir"/fuzz_*; do
   [ -x "$target" ] || continue
   name=$(basename "$target")
   corpus="$here/fuzz/corpus/$name"
   work=$(mktemp -d)
   mkdir -p "$corpus"
   echo "fuzz: $name for ${seconds}s over $(ls "$corpus" | wc -l) corpus files"
   # New inputs go to a scratch folder so a CI run never rewrites the kept corpus.
   "$target" -max_total_time="$seconds" -max_len=4096 -print_final_stats=1 "$work" "$corpus"
   rm -rf "$work"
done
