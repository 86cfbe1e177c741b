#!/usr/bin/env bash
# Installs a configured and built olutil tree into a temporary prefix, moves the
# installed tree elsewhere, and checks it from there as a user would: an installed
# tool runs without LD_LIBRARY_PATH and loads the installed library, and a program
# outside the tree builds and runs against it through find_package(olutil) and
# through pkg-config.
#   tests/install/check.sh [build-dir]
set -euo pipefail
here=$(cd "$(dirname "$0")/../.." && pwd)
dir=${1:-$here/build}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
unset LD_LIBRARY_PATH

cmake --install "$dir" --prefix "$work/first" >/dev/null
# Nothing in the tree may name the prefix it was installed with.
mv "$work/first" "$work/prefix"
prefix=$work/prefix

fail() { echo "install check: $*" >&2; exit 1; }

# Loads the installed library when run from the tree, whatever else is on the machine.
expect_own_library() {
   ldd "$1" | grep -qF "libolutil.so.1 => $prefix/" \
      || fail "$1 does not load libolutil from $prefix: $(ldd "$1" | grep libolutil)"
}

for tool in "$prefix"/bin/*; do
   [ -x "$tool" ] || continue
   expect_own_library "$tool"
   "$tool" --help >/dev/null 2>&1 || fail "$(basename "$tool") --help failed"
   echo "install check: $(basename "$tool") --help runs from the installed tree"
done
[ -x "$prefix/bin/oldis-send" ] || fail "oldis-send was not installed"

echo "install check: find_package(olutil) with CMAKE_PREFIX_PATH"
cmake -S "$here/tests/install" -B "$work/outside-cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/outside-cmake" >/dev/null
expect_own_library "$work/outside-cmake/olutil-outside"
"$work/outside-cmake/olutil-outside"

echo "install check: pkg-config with PKG_CONFIG_PATH"
pc=$(find "$prefix" -name olutil.pc)
[ -n "$pc" ] || fail "no olutil.pc installed"
export PKG_CONFIG_PATH=$(dirname "$pc")
flags=$(pkg-config --cflags --libs olutil)
libdir=$(pkg-config --variable=libdir olutil)
[ "$(cd "$libdir" && pwd)" = "$(cd "$(dirname "$pc")/.." && pwd)" ] \
   || fail "pkg-config libdir $libdir is not where olutil.pc lies"
case $flags in
   *BOOST_ASIO_NO_DEPRECATED*) fail "pkg-config pushes BOOST_ASIO_NO_DEPRECATED: $flags" ;;
esac
# shellcheck disable=SC2086  # the flags are words
c++ -std=c++17 -Wall -Wextra -Werror "$here/tests/install/main.cpp" -o "$work/outside-pc" \
   $flags -Wl,-rpath,"$libdir"
expect_own_library "$work/outside-pc"
"$work/outside-pc"
