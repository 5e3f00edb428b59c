#!/usr/bin/env bash
# Short crash-and-load run on the normal test build (its appliance root is a temporary one).
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-$PWD/build/test}
scripts/stress --short "$build"
# The checks must be able to fail: a session deleted behind the library's back is reported.
reports=$(mktemp -d /tmp/kova-stress-reports.XXXXXX)
set +e
out=$("$build/kova_stress" --drop-one 1 "$reports" 2>&1)
rc=$?
set -e
rm -rf "$reports"
if [ "$rc" -ne 1 ] || ! grep -q '^MISSING login session' <<<"$out"; then
  echo "$out"
  echo "the stress checks did not notice a deleted session" >&2
  exit 1
fi
echo "stress self-check: a deleted session is reported as missing"
