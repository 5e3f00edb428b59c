#!/usr/bin/env bash
# The visitor gate in a real browser: lighttpd on 127.0.0.1 serves the gate of the build in $1
# (its KOVA_ROOT, the demo's accounts), the system's chromium driven by playwright-core walks a
# visitor through a password link and a group link, with axe-core's accessibility check on
# every page, and every page is saved under $1/browser-shots.
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:?usage: 50-browser.sh BUILD_DIR}
build=$(cd "$build" && pwd)
. scripts/lib/packages.sh
. scripts/lib/gate-server.sh
ensure_packages lighttpd chromium curl libnss-wrapper libpam-wrapper libuid-wrapper
command -v npm >/dev/null || ensure_packages npm

playwright_version=1.56.1
axe_version=4.10.3
root=$(sed -n 's/^KOVA_ROOT:[A-Z]*=//p' "$build/CMakeCache.txt")
if [ -z "$root" ]; then
  echo "the build in $build has no KOVA_ROOT" >&2
  exit 1
fi
cmake --build "$build" --target kovasharing-gate kovasharing-demo-links kova_schema >/dev/null

work=$build/browser
shots=$build/browser-shots
node_dir=$work/node
rm -rf "$work/state" "$work/profile" "$shots"
mkdir -p "$work/state" "$work/profile" "$shots" "$node_dir"
# playwright-core drives chromium; axe-core checks the pages' accessibility.
for package in "playwright-core@$playwright_version" "axe-core@$axe_version"; do
  name=${package%@*} version=${package##*@}
  if ! grep -qs "\"version\": \"$version\"" "$node_dir/node_modules/$name/package.json"; then
    echo "== installing $package into $node_dir"
    npm install --prefix "$node_dir" --no-audit --no-fund --loglevel=error "$package" >/dev/null
  fi
done

gate_prepare "$root" "$work/state"
password="open sesame"
gate_make_links "$build" "$password"
password_hash=$GATE_PASSWORD_HASH
group_hash=$GATE_GROUP_HASH
echo "== demo links made with $GATE_LINK_TOOL"

trap 'gate_server_stop' EXIT
gate_server_start "$work/state" "$build/kovasharing-gate" "$PWD/tools/gate/static"
echo "== gate at $GATE_BASE ($GATE_IDENTITY)"

PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1 NODE_PATH=$node_dir/node_modules \
  timeout 300 node tests/gate/browser_walk.cjs "$GATE_BASE?sharing_id=$password_hash" \
  "$password" "$GATE_BASE?sharing_id=$group_hash" "$shots" "$work/profile"
