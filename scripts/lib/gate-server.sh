# The visitor gate behind lighttpd on 127.0.0.1, with the demo's accounts; sourced by
# scripts/demo and the browser test.
#
#   gate_prepare KOVA_ROOT STATE_DIR   accounts (nss_wrapper, pam_wrapper with pam_matrix) in
#                                      STATE_DIR/fixtures, the appliance's private folders under
#                                      KOVA_ROOT; sets GATE_ENV (the environment of every
#                                      program that uses the library) and GATE_IDENTITY
#   gate_run CMD...                    runs CMD with GATE_ENV
#   gate_make_links BUILD_DIR PASSWORD sets GATE_PASSWORD_HASH and GATE_GROUP_HASH
#   gate_server_start STATE_DIR GATE_BINARY STATIC_DIR
#                                      lighttpd on a free port; sets GATE_PID, GATE_PORT and
#                                      GATE_BASE (the gate's URL)
#   gate_server_stop                   stops it again
#   nginx_config WORK USER PROCESSES PORT LOCATIONS
#                                      writes WORK/nginx.conf: nginx in the foreground on
#                                      127.0.0.1:PORT with its files under WORK/nginx and the
#                                      location blocks in LOCATIONS
#
# The demo's accounts: ann (group reviewers, password ann-demo-pw) and ben (not a reviewer,
# password ben-demo-pw). Nothing reads or changes the machine's users or PAM configuration.

gate_prepare() {
  local root=$1 state=$2 libdir matrix fixtures private service db
  libdir=$(dirname "$(find /usr/lib /usr/lib64 -name 'libnss_wrapper.so*' 2>/dev/null | head -n1)")
  matrix=$(find /usr/lib /usr/lib64 -path '*pam_wrapper/pam_matrix.so' 2>/dev/null | head -n1)
  if [ -z "$libdir" ] || [ -z "$matrix" ]; then
    echo "nss_wrapper or pam_matrix not found" >&2
    return 1
  fi
  private=$root/usr/kova/etc/private
  mkdir -p "$private/session/sharing" "$private/autoblock"
  chmod 0755 "$root" "$root/usr" "$root/usr/kova" "$root/usr/kova/etc" "$private" \
    "$private/session"
  chmod 0770 "$private/session/sharing" "$private/autoblock"

  fixtures=$state/fixtures
  mkdir -p "$fixtures/pam.d"
  cat >"$fixtures/passwd" <<EOF
root:x:0:0:root:/root:/bin/sh
kovasys:x:1:1:appliance system account:/:/usr/sbin/nologin
ann:x:2001:2001:Ann Demo,,,:/home/ann:/bin/sh
ben:x:2002:2002:Ben Demo,,,:/home/ben:/bin/sh
EOF
  cat >"$fixtures/group" <<EOF
root:x:0:
kovasys:x:1:
ann:x:2001:
ben:x:2002:
reviewers:x:3001:ann
EOF
  cat >"$fixtures/passdb" <<EOF
ann:ann-demo-pw:kovasharing
ben:ben-demo-pw:kovasharing
EOF
  for service in kovasharing other; do
    db=$fixtures/passdb
    [ "$service" = other ] && db=$fixtures/no-such-passdb # any other service: nobody
    printf 'auth required %s passdb=%s\naccount required %s passdb=%s\n' \
      "$matrix" "$db" "$matrix" "$db" >"$fixtures/pam.d/$service"
  done
  # pam_wrapper copies the service files into a folder of its own; the web server's CGI
  # processes must reach all of them.
  chmod -R a+rX "$state"

  local preload=$libdir/libnss_wrapper.so:$libdir/libpam_wrapper.so
  GATE_ENV=()
  # As root the library really switches to the system account (uid 1) for its database work;
  # as an ordinary user (or where uid 1 cannot reach the folders) uid_wrapper stands in.
  if [ "$(id -u)" -eq 0 ] && command -v setpriv >/dev/null &&
    setpriv --reuid=1 --regid=1 --clear-groups test -x "$private/session"; then
    chown 1:1 "$private/session/sharing" "$private/autoblock"
    GATE_IDENTITY="root, database work as uid 1"
  else
    preload=$preload:$libdir/libuid_wrapper.so
    GATE_ENV+=(UID_WRAPPER=1 UID_WRAPPER_ROOT=1)
    GATE_IDENTITY="$(id -un) under uid_wrapper"
  fi
  GATE_ENV+=("LD_PRELOAD=$preload" "NSS_WRAPPER_PASSWD=$fixtures/passwd"
    "NSS_WRAPPER_GROUP=$fixtures/group" PAM_WRAPPER=1 "PAM_WRAPPER_SERVICE_DIR=$fixtures/pam.d")
}

gate_run() {
  env "${GATE_ENV[@]}" "$@"
}

# gate_make_links BUILD_DIR PASSWORD: the demo's two links, owned by ann: one behind PASSWORD,
# one for the group "reviewers". Made with the administrator's tool when the build has it,
# else with the gate's small helper. Sets GATE_PASSWORD_HASH, GATE_GROUP_HASH, GATE_LINK_TOOL.
gate_make_links() {
  local build=$1 password=$2 links
  if cmake --build "$build" --target kovasharing_cli >/dev/null 2>&1 &&
    [ -x "$build/tools/kovasharing" ]; then
    GATE_LINK_TOOL=$build/tools/kovasharing
    # The tool prints the whole link when a base address is configured: the hash ends it.
    GATE_PASSWORD_HASH=$(gate_run "$GATE_LINK_TOOL" create --project photo-album --owner ann \
      --password "$password" --match-ip no --redirect none --expire-at +30d --max-uses 100 \
      --app '{"title": "Summer photos", "description": "Forty-two pictures from the lake.",
              "size": 84000000, "folder": "/photos/summer", "pictures": 42}')
    GATE_PASSWORD_HASH=${GATE_PASSWORD_HASH##*=}
    GATE_GROUP_HASH=$(gate_run "$GATE_LINK_TOOL" create --project review --owner ann \
      --groups reviewers --match-ip no --redirect none \
      --app '{"title": "Annual report, draft 3", "document": "/docs/report-draft.odt"}')
    GATE_GROUP_HASH=${GATE_GROUP_HASH##*=}
  else
    GATE_LINK_TOOL=$build/kovasharing-demo-links
    links=$(gate_run "$GATE_LINK_TOOL" ann "$password" reviewers)
    GATE_PASSWORD_HASH=$(awk '$1 == "password" {print $2}' <<<"$links")
    GATE_GROUP_HASH=$(awk '$1 == "group" {print $2}' <<<"$links")
  fi
  if [ -z "$GATE_PASSWORD_HASH" ] || [ -z "$GATE_GROUP_HASH" ]; then
    echo "the demo links could not be made with $GATE_LINK_TOOL" >&2
    return 1
  fi
}

gate_server_start() {
  local state=$1 gate=$2 static=$3 conf=$1/lighttpd.conf www=$1/www attempt var value
  mkdir -p "$www"
  chmod a+rx "$state" "$www"
  GATE_PID="" GATE_PORT="" GATE_BASE=""
  for attempt in 1 2 3 4 5 6 7 8 9 10; do
    GATE_PORT=$((20000 + RANDOM % 30000))
    {
      echo 'server.modules = ("mod_alias", "mod_setenv", "mod_cgi", "mod_accesslog")'
      echo 'server.bind = "127.0.0.1"'
      echo "server.port = $GATE_PORT"
      echo "server.document-root = \"$www\""
      echo "server.errorlog = \"$state/error.log\""
      echo "accesslog.filename = \"$state/access.log\""
      echo 'server.max-request-size = 64'
      echo 'mimetype.assign = (".css" => "text/css; charset=utf-8")'
      echo "alias.url = (\"/kovasharing/\" => \"$static/\", \"/share\" => \"$gate\")"
      echo '$HTTP["url"] == "/share" { cgi.assign = ("" => "") }'
      # The CGI processes find the demo's accounts through the wrappers.
      printf 'setenv.set-environment = ('
      local first=1
      for var in "${GATE_ENV[@]}"; do
        value=${var#*=}
        [ $first -eq 1 ] || printf ', '
        printf '"%s" => "%s"' "${var%%=*}" "$value"
        first=0
      done
      printf ', "TZ" => "UTC")\n'
    } >"$conf"
    : >"$state/error.log"
    lighttpd -D -f "$conf" </dev/null >>"$state/server.out" 2>&1 &
    GATE_PID=$!
    local i
    for i in $(seq 1 50); do
      if ! kill -0 "$GATE_PID" 2>/dev/null; then
        break
      fi
      if curl -fsS -o /dev/null "http://127.0.0.1:$GATE_PORT/kovasharing/kovasharing-gate.css" \
        2>/dev/null; then
        GATE_BASE="http://127.0.0.1:$GATE_PORT/share"
        return 0
      fi
      sleep 0.1
    done
    kill "$GATE_PID" 2>/dev/null
    wait "$GATE_PID" 2>/dev/null
    GATE_PID=""
    grep -q 'Address already in use' "$state/error.log" "$state/server.out" 2>/dev/null || break
  done
  echo "lighttpd did not start; see $state/error.log and $state/server.out" >&2
  cat "$state/error.log" "$state/server.out" >&2 2>/dev/null
  return 1
}

gate_server_stop() {
  if [ -n "${GATE_PID:-}" ]; then
    kill "$GATE_PID" 2>/dev/null || true
    wait "$GATE_PID" 2>/dev/null || true
    GATE_PID=""
  fi
}

nginx_config() {
  local work=$1 user=$2 processes=$3 port=$4 locations=$5
  mkdir -p "$work/nginx"
  cat >"$work/nginx.conf" <<EOF
daemon off;
user $user $user;
worker_processes $processes;
pid $work/nginx/nginx.pid;
error_log $work/nginx-error.log;
events { worker_connections 256; }
http {
  access_log off;
  client_body_temp_path $work/nginx/body;
  fastcgi_temp_path $work/nginx/fastcgi;
  proxy_temp_path $work/nginx/proxy;
  scgi_temp_path $work/nginx/scgi;
  uwsgi_temp_path $work/nginx/uwsgi;
  server {
    listen 127.0.0.1:$port;
    root $work/nginx;
$locations
  }
}
EOF
}
