# Installs the Debian packages named in the arguments that are not installed yet (as root),
# without their recommended packages: everything the scripts need is named here.
ensure_packages() {
  local missing=() p
  for p in "$@"; do
    # npm also comes with node distributions other than Debian's npm package; any npm will do.
    [ "$p" = npm ] && command -v npm >/dev/null && continue
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "missing packages: ${missing[*]} (run as root to install them)" >&2
    return 1
  fi
  echo "== installing ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# npm fetches the pinned SQLite amalgamation at the first configure (cmake/sqlite.cmake);
# ca-certificates lets it reach the registry over TLS.
BUILD_PACKAGES=(build-essential cmake pkg-config libsqlite3-dev libjsoncpp-dev libssl-dev
  libgcrypt20-dev libpam0g-dev libqrencode-dev gettext libfcgi-dev npm ca-certificates)
TEST_PACKAGES=(googletest libgtest-dev libnss-wrapper libuid-wrapper libpam-wrapper libfcgi-bin
  lighttpd chromium curl clang libclang-rt-14-dev libbenchmark-dev)
