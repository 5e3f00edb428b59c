#!/usr/bin/env bash
# The gate's FastCGI server (of the build in $1, its KOVA_ROOT, the demo's accounts) behind
# nginx, Apache and lighttpd, each started here on 127.0.0.1 with a configuration in a
# temporary folder and stopped again (the Debian services stay off): curl walks a visitor
# through a password link and a group link per server (form, wrong password and its refusal
# page, right password and the content, logout), and the workers must not run as root.
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:?usage: 55-servers.sh BUILD_DIR}
build=$(cd "$build" && pwd)
. scripts/lib/packages.sh
. scripts/lib/gate-server.sh
if [ "$(id -u)" -ne 0 ]; then
  echo "skip: the FastCGI server starts as root"
  exit 0
fi
ensure_packages nginx apache2 lighttpd curl libnss-wrapper libpam-wrapper
# Debian starts the services it installs (where its policy lets it): this suite runs its own.
for service in nginx apache2 lighttpd; do
  if command -v systemctl >/dev/null && systemctl is-active --quiet "$service" 2>/dev/null; then
    systemctl stop "$service"
    systemctl disable --quiet "$service" 2>/dev/null || true
  elif service "$service" status >/dev/null 2>&1; then
    service "$service" stop >/dev/null
  fi
done

root=$(sed -n 's/^KOVA_ROOT:[A-Z]*=//p' "$build/CMakeCache.txt")
if [ -z "$root" ]; then
  echo "the build in $build has no KOVA_ROOT" >&2
  exit 1
fi
cmake --build "$build" --target kovasharing-gate kovasharing-demo-links kovasharing_cli kova_schema \
  >/dev/null

work=$(mktemp -d /tmp/kova-servers.XXXXXX)
chmod 0755 "$work"
pids=()
cleanup() {
  local pid
  for pid in "${pids[@]}"; do
    kill "$pid" 2>/dev/null || true
    wait "$pid" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap cleanup EXIT
fail() {
  echo "FAIL: $*" >&2
  for log in "$work"/*.log "$work"/lighttpd/error.log "$work"/gate.err; do
    [ -s "$log" ] && { echo "--- $log" >&2; tail -n 20 "$log" >&2; }
  done
  exit 1
}

gate_prepare "$root" "$work/state"
gate_make_links "$build" "open sesame"

# The gate's FastCGI server, its socket open to the web servers' group.
socket=$work/gate.sock
www_gid=$(getent group www-data | cut -d: -f3)
# (env, not gate_run: a function sent to the background runs in a subshell of its own, and the
# server must be this script's child to be stopped with it.)
env "${GATE_ENV[@]}" "$build/kovasharing-gate" --fastcgi --socket "$socket" \
  --socket-group "$www_gid" --workers 2 2>"$work/gate.err" &
gate_pid=$!
pids+=("$gate_pid")
for _ in $(seq 1 50); do
  [ "$(ps -o comm= --ppid "$gate_pid" | grep -c kovagate-worker)" -eq 2 ] && [ -S "$socket" ] &&
    break
  sleep 0.1
done
workers=$(ps -o uid=,gid=,comm= --ppid "$gate_pid" | awk '$3 == "kovagate-worker"')
[ "$(wc -l <<<"$workers")" -eq 2 ] || fail "the gate's workers did not start: $workers"
awk '$1 != 1 || $2 != 1 {exit 1}' <<<"$workers" || fail "a worker is not the system account: $workers"
[ "$(stat -c '%a %u %g' "$socket")" = "660 0 $www_gid" ] || fail "socket: $(stat -c '%a %u %g' "$socket")"
echo "== gate FastCGI server $gate_pid: workers as uid 1, socket 0660 root:www-data"

free_port() {
  local port
  while :; do
    port=$((20000 + RANDOM % 30000))
    (echo >"/dev/tcp/127.0.0.1/$port") 2>/dev/null || break
  done
  echo "$port"
}

# request NAME EXPECTED_STATUS TEXT_ON_PAGE CURL_ARGS...: one request with the walk's cookies.
request() {
  local what=$1 expected=$2 text=$3 status
  shift 3
  status=$(curl -sS -o "$work/page" -w '%{http_code}' -b "$work/jar" -c "$work/jar" "$@") ||
    fail "$what: curl failed"
  [ "$status" = "$expected" ] || fail "$what: status $status, expected $expected"
  [ -z "$text" ] || grep -qF "$text" "$work/page" || fail "$what: no \"$text\" on the page"
}

# walk SERVER URL: the two links through one server.
walk() {
  local server=$1 url=$2 hash field wrong right content refusal
  # Each walk guesses twice from 127.0.0.1: earlier runs' guesses must not block it.
  gate_run "$build/tools/kovasharing" unblock 127.0.0.1 >/dev/null 2>&1 || true
  for hash in "$GATE_PASSWORD_HASH" "$GATE_GROUP_HASH"; do
    rm -f "$work/jar"
    if [ "$hash" = "$GATE_PASSWORD_HASH" ]; then
      field='name="password"' wrong='password=guess' right='password=open+sesame'
      content='Summer photos' refusal='This link does not open.'
    else
      field='name="zel_username"' wrong='zel_username=ann&zel_password=guess'
      right='zel_username=ann&zel_password=ann-demo-pw' content='Annual report, draft 3'
      refusal='That did not work.'
    fi
    request "$server form" 200 "$field" "$url?sharing_id=$hash"
    request "$server wrong password" 403 "$refusal" --data "$wrong" "$url?sharing_id=$hash"
    request "$server right password" 303 "" --data "$right" "$url?sharing_id=$hash"
    grep -q "sharing_sid_$hash" "$work/jar" || fail "$server: no session cookie"
    request "$server content" 200 "$content" "$url?sharing_id=$hash"
    request "$server logout" 303 "" --data action=logout "$url?sharing_id=$hash"
    ! grep -q "sharing_sid_$hash" "$work/jar" || fail "$server: the cookie outlived the logout"
    request "$server after logout" 200 "$field" "$url?sharing_id=$hash"
  done
  echo "== $server: password link and group link walked"
}

# start_server NAME PORT CMD...: starts it in the foreground (as a child of this script) and
# waits until it answers.
start_server() {
  local name=$1 port=$2
  shift 2
  "$@" </dev/null >"$work/$name-out.log" 2>&1 &
  pids+=("$!")
  for _ in $(seq 1 50); do
    curl -s -o /dev/null "http://127.0.0.1:$port/" && return 0
    kill -0 "$!" 2>/dev/null || break
    sleep 0.1
  done
  fail "$name did not start"
}

stop_server() {
  local pid=${pids[-1]}
  kill "$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true
  unset 'pids[-1]'
}

# nginx
port=$(free_port)
nginx_config "$work" www-data 1 "$port" "    location = /share {
      include /etc/nginx/fastcgi_params;
      fastcgi_pass unix:$socket;
    }"
start_server nginx "$port" nginx -e "$work/nginx-error.log" -p "$work/nginx" -c "$work/nginx.conf"
walk nginx "http://127.0.0.1:$port/share"
stop_server

# Apache
port=$(free_port)
modules=/usr/lib/apache2/modules
cat >"$work/apache.conf" <<EOF
ServerRoot $work
ServerName 127.0.0.1
DefaultRuntimeDir $work
PidFile $work/apache.pid
Mutex file:$work
Listen 127.0.0.1:$port
User www-data
Group www-data
ErrorLog $work/apache-error.log
LoadModule mpm_event_module $modules/mod_mpm_event.so
LoadModule authz_core_module $modules/mod_authz_core.so
LoadModule proxy_module $modules/mod_proxy.so
LoadModule proxy_fcgi_module $modules/mod_proxy_fcgi.so
DocumentRoot $work/nginx
ProxyPass "/share" "unix:$socket|fcgi://localhost/"
EOF
start_server apache "$port" apache2 -f "$work/apache.conf" -DFOREGROUND
walk Apache "http://127.0.0.1:$port/share"
stop_server

# lighttpd
port=$(free_port)
mkdir -p "$work/lighttpd"
chown www-data:www-data "$work/lighttpd" # it opens its log after giving up root
cat >"$work/lighttpd.conf" <<EOF
server.modules = ("mod_fastcgi")
server.bind = "127.0.0.1"
server.port = $port
server.username = "www-data"
server.groupname = "www-data"
server.document-root = "$work/nginx"
server.errorlog = "$work/lighttpd/error.log"
fastcgi.server = ("/share" => (("socket" => "$socket", "check-local" => "disable")))
EOF
start_server lighttpd "$port" lighttpd -D -f "$work/lighttpd.conf"
walk lighttpd "http://127.0.0.1:$port/share"
stop_server

if [ -s "$work/gate.err" ]; then
  fail "the gate wrote to its error output: $(cat "$work/gate.err")"
fi
echo "== all three servers passed"
