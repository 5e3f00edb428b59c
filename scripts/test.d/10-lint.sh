#!/usr/bin/env bash
# Lint: every C and C++ file of the repository formatted as .clang-format says, and the
# sources of the libraries and programs clean under .clang-tidy (with the compile commands of
# the build in $1). Tests, fuzz harnesses, the benchmark and the stress tool are formatted but
# not linted; the gate's catalogues must translate every text it marks. Fails on the first
# finding.
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:?usage: 10-lint.sh BUILD_DIR}
. scripts/lib/packages.sh
ensure_packages clang-format clang-tidy gettext

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
# Every text the gate marks for translation has its translation in every catalogue.
for po in tools/gate/po/*.po; do
  echo "== catalogue $po"
  xgettext --keyword=TR --keyword=N_ --from-code=UTF-8 -C -o "$build/kovasharing-gate.pot" \
    tools/gate/*.cpp tools/gate/*.h
  msgcmp --use-untranslated "$po" "$build/kovasharing-gate.pot" || exit 1
  stats=$(msgfmt --statistics -o /dev/null "$po" 2>&1)
  case "$stats" in *untranslated* | *fuzzy*) echo "$po: $stats" >&2; exit 1 ;; esac
done
echo "== lint clean"
