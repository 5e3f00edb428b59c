#!/usr/bin/env bash
# The benchmark's short run on the normal test build ($1): it proves that every part of the
# benchmark still builds and runs (and that no login fails under concurrent processes); its
# timings are not judged here.
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:?usage: 20-bench.sh BUILD_DIR}
out=$(mktemp -d /tmp/kova-bench-ci.XXXXXX)
trap 'rm -rf "$out"' EXIT
scripts/bench --short --build "$build" --json "$out/results.json"
grep -q '"run": "short"' "$out/results.json"
