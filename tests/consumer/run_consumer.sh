#!/usr/bin/env bash
# Installs the build into a staging prefix, then builds the consumer project twice (CMake
# package, pkg-config) and runs both programs.
set -euo pipefail
build=$1 project=$2 work=$3
rm -rf "$work" && mkdir -p "$work"
preload=${LD_PRELOAD:-}
unset LD_PRELOAD   # the build tools run without the test preloads

cmake --install "$build" --prefix "$work/stage" >"$work/install.log"
test -f "$work/stage/include/kovasharing/kovasharing.h"
test -e "$work/stage/lib/libkovasharing.so.1"
test -e "$work/stage/lib/libkovaplatform.so.1"

cmake -S "$project" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/stage" >/dev/null
cmake --build "$work/cmake-build" >/dev/null

# A staged prefix is not in the linker's search path for the platform library that
# libkovasharing needs; an installed one is.
PKG_CONFIG_PATH="$work/stage/lib/pkgconfig" LD_LIBRARY_PATH="$work/stage/lib" \
  c++ -std=c++17 -Wall -Wextra -o "$work/pc-consumer" "$project/main.cpp" \
  $(PKG_CONFIG_PATH="$work/stage/lib/pkgconfig" pkg-config --cflags --libs kovasharing)

# The plain visitor API from C: its header must compile as C11.
LD_LIBRARY_PATH="$work/stage/lib" \
  cc -std=c11 -Wall -Wextra -pedantic -Werror -o "$work/c-consumer" "$project/main_c.c" \
  $(PKG_CONFIG_PATH="$work/stage/lib/pkgconfig" pkg-config --cflags --libs kovasharing)

data=$(mktemp -d /tmp/kova-consumer.XXXXXX)
trap 'rm -rf "$data"' EXIT
[ "$(id -u)" -eq 0 ] && chown 1:1 "$data"
for prog in "$work/cmake-build/consumer" "$work/pc-consumer" "$work/c-consumer"; do
  out=$(LD_PRELOAD="$preload" LD_LIBRARY_PATH="$work/stage/lib" "$prog" "$data/$(basename "$prog").db")
  echo "$out"
  grep -q "^consumer ok" <<<"$out"
done
