#!/usr/bin/env bash
# The Debian packages: builds the production configuration and its packages (scripts/package,
# into build/release), then installs them into a throwaway root and checks the result.
# $1 (the test build) is not used: packages come from the production configuration only.
set -euo pipefail
cd "$(dirname "$0")/../.."
build=$PWD/build/release
mkdir -p "$build"
scripts/package "$build" >"$build/package.log" 2>&1 || { cat "$build/package.log" >&2; exit 1; }
for deb in "$build"/*.deb; do
  echo "-- $(basename "$deb"): $(dpkg-deb -f "$deb" Depends)"
done
tests/packaging/check_packages.sh "$build" "$PWD"
