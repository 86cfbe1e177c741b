#!/usr/bin/env bash
# Installs the Debian packages olutil needs to build and test, when any is missing.
# Works as root or through sudo; does nothing when everything is present.
set -euo pipefail

packages=(
   build-essential cmake pkg-config
   libboost-dev libboost-thread-dev libboost-system-dev uuid-dev
   libgtest-dev libgmock-dev libbenchmark-dev
   iproute2 ccache clang libclang-rt-dev
   libpcap-dev
)

missing=()
for p in "${packages[@]}"; do
   if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
      missing+=("$p")
   fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
   as_root=()
elif command -v sudo >/dev/null 2>&1; then
   as_root=(sudo)
else
   echo "install-deps: missing packages (${missing[*]}) and neither root nor sudo" >&2
   exit 1
fi
echo "install-deps: installing ${missing[*]}"
"${as_root[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq --no-install-recommends \
   "${missing[@]}"
