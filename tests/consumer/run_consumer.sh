#!/usr/bin/env bash
# Installs the build into a staging prefix, then builds the consumer project with the CMake
# package and with pkg-config (C++ and C), and runs the programs, as an application developer
# would: nothing but the prefix is given (no library path at build or run time).
set -euo pipefail
build=$1 project=$2 work=$3
rm -rf "$work" && mkdir -p "$work"
preload=${LD_PRELOAD:-}
unset LD_PRELOAD   # the build tools run without the test preloads

cmake --install "$build" --prefix "$work/stage" >"$work/install.log"
test -f "$work/stage/include/kovasharing/kovasharing.h"
test -e "$work/stage/lib/libkovasharing.so.1"
test -e "$work/stage/lib/libkovaplatform.so.1"
test -f "$work/stage/share/man/man1/kovasharing.1.gz"

cmake -S "$project" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/stage" >/dev/null
cmake --build "$work/cmake-build" >/dev/null

c++ -std=c++17 -Wall -Wextra -o "$work/pc-consumer" "$project/main.cpp" \
  $(PKG_CONFIG_PATH="$work/stage/lib/pkgconfig" pkg-config --cflags --libs kovasharing)

# The plain visitor API from C: its header must compile as C11.
cc -std=c11 -Wall -Wextra -pedantic -Werror -o "$work/c-consumer" "$project/main_c.c" \
  $(PKG_CONFIG_PATH="$work/stage/lib/pkgconfig" pkg-config --cflags --libs kovasharing)

data=$(mktemp -d /tmp/kova-consumer.XXXXXX)
trap 'rm -rf "$data"' EXIT
[ "$(id -u)" -eq 0 ] && chown 1:1 "$data"
for prog in "$work/cmake-build/consumer" "$work/pc-consumer" "$work/c-consumer"; do
  out=$(LD_PRELOAD="$preload" "$prog" "$data/$(basename "$prog").db")
  echo "$out"
  grep -q "^consumer ok" <<<"$out"
done

# The installed programs start from the prefix as they are.
env -i "$work/stage/bin/kovasharing" --help | grep -q "^Usage: kovasharing"
env -i REQUEST_METHOD=GET "$work/stage/lib/kovasharing/cgi-bin/kovasharing-gate" |
  grep -q "^Status: 404"
