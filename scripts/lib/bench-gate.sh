# The gate through nginx on 127.0.0.1, as a persistent FastCGI server against the CGI program
# run by fcgiwrap (a fresh process per request): requests/s and median latency of an authorised
# GET (the content page of a password link, with its session cookie), with 1 and 8 concurrent
# clients for SECONDS each. Sourced by scripts/bench:
#
#   bench_gate BUILD_DIR KOVA_ROOT SECONDS JSON_FILE   prints a table and writes JSON_FILE
#
# nginx and fcgiwrap run as root here, so that both can reach both sockets and the CGI program
# can switch to the system account as it must; they are started and stopped by this function.

bench_gate() {
  local build=$1 root=$2 seconds=$3 json=$4 work port hash sid private mode clients out
  ensure_packages nginx fcgiwrap apache2-utils curl
  # Debian may start the services it installs; this benchmark runs its own.
  for service in nginx fcgiwrap fcgiwrap.socket; do
    if command -v systemctl >/dev/null && systemctl is-active --quiet "$service" 2>/dev/null; then
      systemctl stop "$service"
    fi
  done
  cmake --build "$build" -j "$(nproc)" --target kovasharing-gate kovasharing_cli kova_schema \
    >/dev/null
  work=$(mktemp -d /tmp/kova-bench-gate.XXXXXX)
  chmod 0755 "$work"
  private=$root/usr/kova/etc/private
  mkdir -p "$private/session/sharing" "$private/autoblock"
  chown 1:1 "$private/session/sharing" "$private/autoblock"
  chmod 0770 "$private/session/sharing" "$private/autoblock"

  local pids=()
  "$build/kovasharing-gate" --fastcgi --socket "$work/gate.sock" --workers 2 2>"$work/gate.err" &
  pids+=("$!")
  # fcgiwrap's preforked children outlive their parent: it runs as a process group of its own,
  # stopped as a whole.
  setsid fcgiwrap -c 8 -s "unix:$work/cgi.sock" 2>"$work/fcgiwrap.err" &
  local cgi_group=$!
  port=$((20000 + RANDOM % 30000))
  nginx_config "$work" root 2 "$port" "    location = /share {
      include /etc/nginx/fastcgi_params;
      fastcgi_pass unix:$work/gate.sock;
    }
    location = /cgi {
      include /etc/nginx/fastcgi_params;
      fastcgi_param SCRIPT_FILENAME $build/kovasharing-gate;
      fastcgi_pass unix:$work/cgi.sock;
    }"
  nginx -e "$work/nginx-error.log" -p "$work/nginx" -c "$work/nginx.conf" </dev/null \
    >"$work/nginx.out" 2>&1 &
  pids+=("$!")
  for _ in $(seq 1 50); do
    [ -S "$work/gate.sock" ] && [ -S "$work/cgi.sock" ] &&
      curl -s -o /dev/null "http://127.0.0.1:$port/" && break
    sleep 0.1
  done

  hash=$(echo "bench sesame" | "$build/tools/kovasharing" create --project bench --owner root \
    --password-stdin --match-ip no --redirect none --app '{"title": "Bench"}')
  sid=$(curl -s -o /dev/null -D - --data 'password=bench+sesame' \
    "http://127.0.0.1:$port/share?sharing_id=$hash" |
    sed -n "s/^Set-Cookie: sharing_sid_$hash=\([^;]*\);.*/\1/p")
  local ok=1
  for mode in share cgi; do
    curl -s -H "Cookie: sharing_sid_$hash=$sid" "http://127.0.0.1:$port/$mode?sharing_id=$hash" |
      grep -q "<h1>Bench</h1>" || ok=0
  done
  if [ -z "$sid" ] || [ $ok -ne 1 ]; then
    echo "bench_gate: the content page cannot be reached through both paths" >&2
    cat "$work"/*.err "$work/nginx-error.log" >&2 2>/dev/null
    kill "${pids[@]}" 2>/dev/null || true
    kill -- "-$cgi_group" 2>/dev/null || true
    wait "${pids[@]}" "$cgi_group" 2>/dev/null || true
    rm -rf "$work"
    return 1
  fi

  declare -A rps median
  for clients in 1 8; do
    for mode in share cgi; do
      out=$(ab -q -t "$seconds" -n 1000000 -c "$clients" -C "sharing_sid_$hash=$sid" \
        -e "$work/pct.csv" "http://127.0.0.1:$port/$mode?sharing_id=$hash" 2>&1)
      if grep -q "Non-2xx responses" <<<"$out"; then
        echo "bench_gate: $mode answered other than 200: $out" >&2
        ok=0
      fi
      rps[$mode$clients]=$(awk '/^Requests per second:/ {print $4}' <<<"$out")
      median[$mode$clients]=$(awk -F, '$1 == 50 {print $2}' "$work/pct.csv")
    done
  done
  kill "${pids[@]}" 2>/dev/null || true
  kill -- "-$cgi_group" 2>/dev/null || true
  wait "${pids[@]}" "$cgi_group" 2>/dev/null || true
  rm -rf "$work"

  printf '\n%-34s %12s %12s %8s\n' "gate through nginx, authorised GET" "FastCGI" "CGI" "ratio"
  for clients in 1 8; do
    printf '%-34s %12.0f %12.0f %8.2f\n' "requests/s, $clients client(s)" "${rps[share$clients]}" \
      "${rps[cgi$clients]}" "$(awk "BEGIN {print ${rps[share$clients]} / ${rps[cgi$clients]}}")"
    printf '%-34s %12.2f %12.2f %8.2f\n' "median latency ms, $clients client(s)" \
      "${median[share$clients]}" "${median[cgi$clients]}" \
      "$(awk "BEGIN {print ${median[cgi$clients]} / ${median[share$clients]}}")"
  done
  {
    printf '{"seconds": %s' "$seconds"
    for clients in 1 8; do
      printf ', "fastcgi_rps_%s": %s, "cgi_rps_%s": %s' "$clients" "${rps[share$clients]}" \
        "$clients" "${rps[cgi$clients]}"
      printf ', "fastcgi_median_ms_%s": %s, "cgi_median_ms_%s": %s' "$clients" \
        "${median[share$clients]}" "$clients" "${median[cgi$clients]}"
    done
    printf '}\n'
  } >"$json"
  [ $ok -eq 1 ]
}
