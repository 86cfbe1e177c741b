#!/usr/bin/env bash
# Installs the Debian packages olutil needs for what is being built, when any is missing.
#   scripts/install-deps.sh [cmake arguments...]
# Reads the same -DOLUTIL_BUILD_TESTS=, -DOLUTIL_BUILD_BENCH=, -DOLUTIL_BUILD_FUZZ= and
# -DOLUTIL_BUILD_TOOLS= arguments as CMake (or those names in the environment), so a
# library-only build asks for the library's packages alone. Installs as root or through
# sudo. Without either, missing library packages stop it; missing test, benchmark or
# fuzzing packages are named on standard error and left to CMake (benchmarks are
# skipped there when absent).
set -euo pipefail

want_tests=${OLUTIL_BUILD_TESTS:-ON}
want_bench=${OLUTIL_BUILD_BENCH:-ON}
want_fuzz=${OLUTIL_BUILD_FUZZ:-OFF}
want_tools=${OLUTIL_BUILD_TOOLS:-ON}
for arg in "$@"; do
   case $arg in
      -DOLUTIL_BUILD_TESTS=*|-DOLUTIL_BUILD_TESTS:*=*) want_tests=${arg#*=} ;;
      -DOLUTIL_BUILD_BENCH=*|-DOLUTIL_BUILD_BENCH:*=*) want_bench=${arg#*=} ;;
      -DOLUTIL_BUILD_FUZZ=*|-DOLUTIL_BUILD_FUZZ:*=*) want_fuzz=${arg#*=} ;;
      -DOLUTIL_BUILD_TOOLS=*|-DOLUTIL_BUILD_TOOLS:*=*) want_tools=${arg#*=} ;;
   esac
done

# CMake's own reading of a boolean.
is_on() {
   case ${1^^} in
      1|ON|YES|TRUE|Y) return 0 ;;
      *) return 1 ;;
   esac
}

# What the library and the tools need: without these nothing builds.
required=(build-essential cmake libboost-dev libboost-thread-dev libboost-system-dev uuid-dev)
# The capture tools (oldis-record, oldis-replay) and their fuzz target read and
# write pcap files with libpcap; the library never links it.
if is_on "$want_tools" || is_on "$want_fuzz"; then
   required+=(libpcap-dev)
fi
# What only some builds need. pkg-config goes with the tests: CI builds a program
# against an installed tree with it.
# The FOM module reader (olfom-merge and its tests) needs pugixml; without it CMake
# leaves the reader out. The crash call-stack tests run pmap (procps) and addr2line
# (binutils), as DtMiniDumper does in a crash.
optional=(ccache libpugixml-dev)
is_on "$want_tests" && optional+=(libgtest-dev libgmock-dev iproute2 pkg-config procps binutils)
is_on "$want_bench" && optional+=(libbenchmark-dev)
is_on "$want_fuzz" && optional+=(clang libclang-rt-dev)

if ! command -v dpkg-query >/dev/null 2>&1; then
   echo "install-deps: not a Debian system; install by hand: ${required[*]} ${optional[*]}" >&2
   exit 0
fi

missing() {
   local p
   for p in "$@"; do
      if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
         echo "$p"
      fi
   done
}
mapfile -t missing_required < <(missing "${required[@]}")
mapfile -t missing_optional < <(missing "${optional[@]}")
[ ${#missing_required[@]} -eq 0 ] && [ ${#missing_optional[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
   as_root=()
elif command -v sudo >/dev/null 2>&1 && { [ -t 0 ] || sudo -n true 2>/dev/null; }; then
   as_root=(sudo)
else
   if [ ${#missing_required[@]} -ne 0 ]; then
      echo "install-deps: missing packages (${missing_required[*]}) and neither root nor sudo" >&2
      exit 1
   fi
   echo "install-deps: not installing ${missing_optional[*]} (neither root nor sudo);" \
        "a library-only build needs none of them (-DOLUTIL_BUILD_TESTS=OFF -DOLUTIL_BUILD_BENCH=OFF)" >&2
   exit 0
fi
missing_all=("${missing_required[@]}" "${missing_optional[@]}")
echo "install-deps: installing ${missing_all[*]}"
"${as_root[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${as_root[@]}" apt-get install -y -qq --no-install-recommends \
   "${missing_all[@]}"
