#!/usr/bin/env bash
# Builds olutil and runs its main job on loopback, with no configuration:
# oldis-send sends Entity State PDUs bundled into datagrams of at most 1400 bytes,
# and oldis-monitor receives them with a DtDisSocket, which unbundles each datagram
# and hands the PDUs out one per read.
#   scripts/run-main.sh [build-dir] [PDU count]
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$here/build}
count=${2:-1000}
"$here/scripts/build.sh" "$dir" -DOLUTIL_BUILD_TESTS=OFF -DOLUTIL_BUILD_BENCH=OFF

port=$(( 20000 + RANDOM % 20000 ))
echo "== oldis-monitor on 127.0.0.1:$port, oldis-send of $count PDUs in bundles of at most 1400 bytes"
"$dir/oldis-monitor" --port "$port" --summary --duration 4 --count "$count" &
monitor=$!
sleep 0.5
"$dir/oldis-send" --dest 127.0.0.1 --port "$port" --count "$count" --bundle 1400
wait "$monitor"
