#!/usr/bin/env bash
# Every fuzz target for a short while (20 s each in CI, 5 s otherwise), under the sanitizers.
set -euo pipefail
cd "$(dirname "$0")/../.."
if [ "${CI:-}" = true ]; then
  scripts/fuzz 20
else
  scripts/fuzz 5
fi
