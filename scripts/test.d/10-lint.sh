#!/usr/bin/env bash
# Lint: every C and C++ file of the repository formatted as .clang-format says, and the
# sources of the libraries and programs clean under .clang-tidy (with the compile commands of
# the build in $1). Tests, fuzz harnesses, the benchmark and the stress tool are formatted but
# not linted. Fails on the first finding.
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:?usage: 10-lint.sh BUILD_DIR}
. scripts/lib/packages.sh
ensure_packages clang-format clang-tidy

mapfile -t files < <(git ls-files '*.c' '*.cpp' '*.h')
echo "== clang-format: ${#files[@]} files"
clang-format --dry-run --Werror "${files[@]}"

if [ ! -f "$build/compile_commands.json" ]; then
  echo "no $build/compile_commands.json: configure with the test preset" >&2
  exit 1
fi
mapfile -t sources < <(git ls-files 'src/*.cpp' 'platform/*.cpp' 'tools/*.cpp')
echo "== clang-tidy: ${#sources[@]} files"
run-clang-tidy -quiet -j "$(nproc)" -p "$build" "${sources[@]/#/$PWD/}" >"$build/clang-tidy.log" 2>&1 ||
  { grep -E 'error:|warning:' "$build/clang-tidy.log" | sort -u; exit 1; }
echo "== lint clean"
