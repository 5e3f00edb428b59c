#!/usr/bin/env bash
# Builds the consumer project against an installed kovasharing, with the CMake package and with
# pkg-config (C++, and C for the plain visitor API), and runs the programs.
#   run_consumer.sh PREFIX PROJECT WORK [BUILD]
# With BUILD (the ctest case) that build is installed into PREFIX first and nothing but the
# prefix is given (no library path at build or run time); the C program, whose calls reach the
# build's test root, and the installed tools run too. Without it (a package root) the caller
# sets LD_LIBRARY_PATH and only the C++ programs run, each on a database file of its own.
set -euo pipefail
prefix=$1 project=$2 work=$3 build=${4:-}
rm -rf "$work" && mkdir -p "$work"
preload=${LD_PRELOAD:-}
unset LD_PRELOAD # the build tools run without the test preloads
if [ -n "$build" ]; then
  rm -rf "$prefix"
  cmake --install "$build" --prefix "$prefix" >"$work/install.log"
  test -f "$prefix/share/man/man1/kovasharing.1.gz"
fi
pcdir=$(dirname "$(find "$prefix" -name kovasharing.pc)")
cmake -S "$project" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
flags=$(PKG_CONFIG_PATH=$pcdir pkg-config --cflags --libs kovasharing)
# shellcheck disable=SC2086 # the flags are words
c++ -std=c++17 -Wall -Wextra -o "$work/pc-consumer" "$project/main.cpp" $flags
# shellcheck disable=SC2086
cc -std=c11 -Wall -Wextra -pedantic -Werror -o "$work/c-consumer" "$project/main_c.c" $flags

progs=("$work/cmake/consumer" "$work/pc-consumer")
[ -z "$build" ] || progs+=("$work/c-consumer")
data=$(mktemp -d /tmp/kova-consumer.XXXXXX)
trap 'rm -rf "$data"' EXIT
[ "$(id -u)" -ne 0 ] || chown 1:1 "$data" # the system account does the database work
for prog in "${progs[@]}"; do
  [[ $(ldd "$prog") == *" $prefix/"*libkovasharing.so.1* ]] ||
    { echo "${prog##*/} does not load the library of $prefix" >&2; exit 1; }
  out=$(LD_PRELOAD="$preload" "$prog" "$data/${prog##*/}.db")
  echo "$out"
  grep -q "^consumer ok" <<<"$out"
done
[ -n "$build" ] || exit 0
env -i "$prefix/bin/kovasharing" --help | grep -q "^Usage: kovasharing"
env -i REQUEST_METHOD=GET "$prefix/lib/kovasharing/cgi-bin/kovasharing-gate" | grep -q "^Status: 404"
