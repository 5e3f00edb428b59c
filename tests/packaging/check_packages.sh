#!/usr/bin/env bash
# Installs the Debian packages of a production build into a throwaway root with dpkg (the
# maintainer scripts run too, outside a chroot, against DPKG_ROOT) and checks what they put
# where: files, modes, owners, library links, the state directories of the system account,
# control fields and dependencies; then reinstall over existing data, removal and purge.
# Usage: check_packages.sh DEB_DIR SOURCE_DIR       (as root)
set -euo pipefail
debs=$(cd "$1" && pwd) src=$(cd "$2" && pwd)
if [ "$(id -u)" -ne 0 ]; then
  echo "check_packages: run as root (the state directories are given to uid 1)" >&2
  exit 1
fi

failures=0
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}
pass() { echo "ok: $*"; }

runtime_deb=$(ls "$debs"/libkovasharing1_*.deb)
dev_deb=$(ls "$debs"/libkovasharing-dev_*.deb)
tools_deb=$(ls "$debs"/kovasharing-tools_*.deb 2>/dev/null || true)
ver=$(dpkg-deb -f "$runtime_deb" Version)
ma=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
libdir=usr/lib/$ma
all_debs=("$runtime_deb" "$dev_deb")
[ -n "$tools_deb" ] && all_debs+=("$tools_deb")

root=$(mktemp -d /tmp/kova-pkgroot.XXXXXX)
work=$(mktemp -d /tmp/kova-pkgwork.XXXXXX)
trap 'rm -rf "$root" "$work"' EXIT
chmod 0755 "$root"
admin=$root/var/lib/dpkg
mkdir -p "$admin/info" "$admin/updates" "$admin/triggers"
touch "$admin/status" "$admin/available"
dpkg_root() { dpkg --root="$root" --force-script-chrootless --log=/dev/null "$@"; }
installed() { dpkg-query --admindir="$admin" -W -f='${Status}' "$1" 2>/dev/null; }
depends() { dpkg-deb -f "$1" Depends | tr -d ' ' | tr ',' '\n'; }

# The packages named in Depends are entered into the root's package list as this machine has
# them (without their files), so that dpkg checks the dependencies for real: one that is not
# installed here is missing there too.
for name in $(for deb in "${all_debs[@]}"; do depends "$deb"; done | sed 's/(.*//' | sort -u); do
  case $name in libkovasharing*) continue ;; esac
  dpkg-query -s "$name" >/dev/null 2>&1 || continue
  { dpkg-query -s "$name"; echo; } >>"$admin/status"
  touch "$admin/info/$(dpkg-query -W -f='${binary:Package}' "$name").list"
done

# ------------------------------------------------------------------ control fields
# The package of a library file; with merged /usr a library may be known by either path.
owner_of() {
  local p
  [ -n "$1" ] || return 0
  for p in "$1" "$(readlink -f "$1")" "${1#/usr}" "/usr$1"; do
    dpkg -S "$p" 2>/dev/null | head -n1 | cut -d: -f1 | grep . && return 0
  done
  return 0
}
# Every library that a packaged ELF file needs (linked, or named for opening at run time) must
# be provided by a package in Depends: resolved on this machine and mapped to its package (our
# own libraries to libkovasharing1).
check_shlib_depends() {
  local deb=$1 name=$2 tree deps
  tree=$work/x-$name
  dpkg-deb -x "$deb" "$tree"
  deps=$(depends "$deb" | sed 's/(.*//' | sort -u)
  while read -r elf; do
    while read -r soname; do
      local pkg
      if [ -e "$work/x-runtime/$libdir/$soname" ]; then
        pkg=libkovasharing1
      else
        pkg=$(owner_of "$(ldconfig -p | awk -v s="$soname" '$1 == s {print $NF; exit}')")
      fi
      if [ -z "$pkg" ]; then
        fail "$name: no package provides $soname (needed by ${elf#"$tree"/})"
      elif [ "$pkg" != "$(dpkg-deb -f "$deb" Package)" ] && ! grep -qx "$pkg" <<<"$deps"; then
        fail "$name: Depends lacks $pkg for $soname (needed by ${elf#"$tree"/})"
      fi
    done < <({
      readelf -d "$elf" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'
      # Libraries opened at run time by name, which dpkg-shlibdeps cannot see.
      strings -a "$elf" | grep -E '^lib[A-Za-z0-9_+.-]+\.so\.[0-9]+$' || true
    } | sort -u)
  done < <(find "$tree" -type f -exec sh -c 'head -c4 "$1" | grep -q ELF' _ {} \; -print)
}

check_shlib_depends "$runtime_deb" runtime
dev_depends=$(dpkg-deb -f "$dev_deb" Depends)
[ "$dev_depends" = "libkovasharing1 (= $ver), libjsoncpp-dev" ] ||
  fail "libkovasharing-dev Depends: $dev_depends"
depends "$runtime_deb" | grep -qx libpam-runtime ||
  fail "libkovasharing1 does not depend on libpam-runtime (the PAM service includes its stacks)"
if depends "$runtime_deb" | grep -q '^libkovasharing'; then
  fail "libkovasharing1 depends on itself"
fi
shlibs=$(dpkg-deb --ctrl-tarfile "$runtime_deb" | tar -xOf - ./shlibs 2>/dev/null || true)
for lib in libkovasharing libkovaplatform; do
  grep -qx "$lib 1 libkovasharing1 (>= $ver)" <<<"$shlibs" || fail "shlibs lacks $lib: $shlibs"
done
conffiles=$(dpkg-deb --ctrl-tarfile "$runtime_deb" | tar -xOf - ./conffiles 2>/dev/null || true)
[ "$conffiles" = /etc/pam.d/kovasharing ] || fail "conffiles: $conffiles"
if [ -n "$tools_deb" ]; then
  check_shlib_depends "$tools_deb" tools
  depends "$tools_deb" | grep -qx "libkovasharing1(=$ver)" ||
    fail "kovasharing-tools Depends lacks libkovasharing1 (= $ver)"
fi
pass "control fields and dependencies of ${#all_debs[@]} packages"

# ------------------------------------------------------------------ install
if ! dpkg_root -i "${all_debs[@]}" >"$work/install.log" 2>&1; then
  cat "$work/install.log" >&2
  fail "dpkg -i into the throwaway root"
elif grep -Ei 'warning|error' "$work/install.log"; then
  fail "dpkg -i warned"
fi
for deb in "${all_debs[@]}"; do
  pkg=$(dpkg-deb -f "$deb" Package)
  [ "$(installed "$pkg")" = "install ok installed" ] || fail "$pkg: $(installed "$pkg")"
done

# "mode uid:gid type" of a path in the root; symbolic links by their target.
meta() { stat -c '%a %u:%g %F' "$root/$1" 2>/dev/null || echo missing; }
expect() {
  local path=$1 want=$2 got
  got=$(meta "$path")
  [ "$got" = "$want" ] || fail "$path: $got, expected $want"
}
expect_link() {
  local got
  got=$(readlink "$root/$1" || echo missing)
  [ "$got" = "$2" ] || fail "$1 -> $got, expected -> $2"
}

for lib in libkovasharing libkovaplatform; do
  expect "$libdir/$lib.so.$ver" "644 0:0 regular file"
  expect_link "$libdir/$lib.so.1" "$lib.so.$ver"
  expect_link "$libdir/$lib.so" "$lib.so.1"
  soname=$(readelf -d "$root/$libdir/$lib.so.$ver" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
  [ "$soname" = "$lib.so.1" ] || fail "$lib: SONAME '$soname'"
  if readelf -d "$root/$libdir/$lib.so.$ver" | grep -Eq '\((RPATH|RUNPATH)\)'; then
    fail "$lib carries a run path into the build tree"
  fi
done
# The runtime package has the versioned files, the development package only the namelinks.
dpkg-deb -c "$runtime_deb" | grep -q "/$libdir/libkovasharing.so ->" &&
  fail "the namelink libkovasharing.so is in the runtime package"
dpkg-deb -c "$dev_deb" | awk '$6 ~ /\.so\./ {found = 1} END {exit !found}' &&
  fail "versioned libraries in the development package"

schema=$root/usr/kova/share/kovasharing/db_schema
for sql in "$src"/db_schema/*.sql; do
  expect "usr/kova/share/kovasharing/db_schema/${sql##*/}" "644 0:0 regular file"
  cmp -s "$sql" "$schema/${sql##*/}" || fail "schema ${sql##*/} differs from the source"
done
[ "$(ls "$schema" | wc -l)" = "$(ls "$src"/db_schema/*.sql | wc -l)" ] ||
  fail "schema directory holds $(ls "$schema")"

expect etc/pam.d/kovasharing "644 0:0 regular file"
cmp -s "$src/pam/kovasharing" "$root/etc/pam.d/kovasharing" || fail "PAM service file differs"

# The databases' directories: the system account's alone.
for dir in usr/kova/etc/private/session/sharing usr/kova/etc/private/autoblock; do
  expect "$dir" "770 1:1 directory"
done
for dir in usr/kova usr/kova/etc usr/kova/etc/private usr/kova/etc/private/session; do
  expect "$dir" "755 0:0 directory"
done

for header in "$src"/include/kovasharing/*.h; do
  expect "usr/include/kovasharing/${header##*/}" "644 0:0 regular file"
  cmp -s "$header" "$root/usr/include/kovasharing/${header##*/}" ||
    fail "header ${header##*/} differs"
done
[ "$(ls "$root/usr/include")" = kovasharing ] ||
  fail "usr/include holds $(ls "$root/usr/include" | tr '\n' ' ')"
[ "$(ls "$root/usr/include/kovasharing" | wc -l)" = "$(ls "$src"/include/kovasharing/*.h | wc -l)" ] ||
  fail "usr/include/kovasharing holds more than the public headers"
for f in kovasharingConfig.cmake kovasharingConfigVersion.cmake kovasharingTargets.cmake; do
  expect "$libdir/cmake/kovasharing/$f" "644 0:0 regular file"
done
expect "$libdir/pkgconfig/kovasharing.pc" "644 0:0 regular file"

# Nothing but root owns anything else, and nothing is writable by group or others.
odd=$(cd "$root" && find . -path ./var -prune -o \( ! -path ./usr/kova/etc/private/session/sharing \
  ! -path ./usr/kova/etc/private/autoblock \( ! -user 0 -o ! -group 0 -o -perm /022 \) \) \
  ! -type l -print)
[ -z "$odd" ] || fail "unexpected owner or mode: $odd"

if [ -n "$tools_deb" ]; then
  expect usr/bin/kovasharing "755 0:0 regular file"
  expect "$libdir/kovasharing/cgi-bin/kovasharing-gate" "755 0:0 regular file"
  expect usr/share/kovasharing/gate/kovasharing-gate.css "644 0:0 regular file"
  expect usr/share/man/man1/kovasharing.1.gz "644 0:0 regular file"
  if ! LD_LIBRARY_PATH="$root/$libdir" "$root/usr/bin/kovasharing" --help >"$work/help" 2>&1 ||
    ! grep -q create "$work/help"; then
    fail "installed kovasharing --help: $(head -n3 "$work/help")"
  fi
else
  echo "skip: no kovasharing-tools package was built (no tools component)"
fi
for elf in "$root/$libdir"/lib*.so.1 "$root"/usr/bin/* "$root/$libdir"/kovasharing/cgi-bin/*; do
  [ -e "$elf" ] || continue
  missing=$(LD_LIBRARY_PATH="$root/$libdir" ldd "$elf" | grep 'not found' || true)
  [ -z "$missing" ] || fail "${elf#"$root"/}: $missing"
done
pass "files, modes, owners and links of the installed packages"

# ------------------------------------------------------------------ building against it
# The CMake package and the pkg-config file of the root; the CMake-built program then runs on
# the installed libraries with a database file of its own (in a directory of the system
# account, which does the database work), never the appliance's.
consumer=$src/tests/consumer/project
if cmake -S "$consumer" -B "$work/consumer" -DCMAKE_PREFIX_PATH="$root/usr" >"$work/cmake.log" 2>&1 &&
  LD_LIBRARY_PATH="$root/$libdir" cmake --build "$work/consumer" >>"$work/cmake.log" 2>&1; then
  grep -q "$root/$libdir/libkovasharing.so" "$work/consumer/CMakeFiles/consumer.dir/link.txt" ||
    fail "the consumer did not link the root's library"
else
  cat "$work/cmake.log" >&2
  fail "find_package(kovasharing) from the root"
fi
pc() { PKG_CONFIG_PATH="$root/$libdir/pkgconfig" pkg-config "$@" kovasharing; }
[ "$(pc --modversion)" = "$ver" ] || fail "pkg-config version $(pc --modversion)"
# shellcheck disable=SC2046 # the flags are words
if ! LD_LIBRARY_PATH="$root/$libdir" cc -std=c11 -Wall -Wextra -pedantic -Werror \
  -o "$work/c-consumer" "$consumer/main_c.c" $(pc --cflags --libs) 2>"$work/cc.log"; then
  cat "$work/cc.log" >&2
  fail "C program with pkg-config flags of the root"
fi
data=$(mktemp -d /tmp/kova-pkgdata.XXXXXX)
chown 1:1 "$data"
if [ -x "$work/consumer/consumer" ]; then
  out=$(LD_LIBRARY_PATH="$root/$libdir" "$work/consumer/consumer" "$data/consumer.db" 2>&1 || true)
  grep -q "^consumer ok" <<<"$out" || fail "installed library at work: $out"
fi
rm -rf "$data"
pass "CMake package and pkg-config file of the installed development package"

# ------------------------------------------------------------------ reinstall, removal, purge
state=$root/usr/kova/etc/private/session/sharing
printf 'links' >"$state/sharing.db"
chown 1:1 "$state/sharing.db"
chmod 0660 "$state/sharing.db"
chmod 0700 "$state"   # a damaged mode is put right by the next configure
dpkg_root -i "$runtime_deb" >"$work/reinstall.log" 2>&1 || fail "reinstall: $(cat "$work/reinstall.log")"
expect usr/kova/etc/private/session/sharing "770 1:1 directory"
[ "$(cat "$state/sharing.db" 2>/dev/null)" = links ] || fail "reinstall lost the database"

# Removing the library while the others need it must be refused.
if dpkg_root -r libkovasharing1 >"$work/refused.log" 2>&1 ||
  ! grep -q "libkovasharing-dev depends on libkovasharing1" "$work/refused.log"; then
  fail "removal of libkovasharing1 under libkovasharing-dev: $(cat "$work/refused.log")"
fi
pkgs=()
for deb in "${all_debs[@]}"; do pkgs+=("$(dpkg-deb -f "$deb" Package)"); done
dpkg_root -r "${pkgs[@]}" >"$work/remove.log" 2>&1 || fail "remove: $(cat "$work/remove.log")"
[ ! -e "$root/$libdir/libkovasharing.so.1" ] || fail "library left after removal"
[ "$(cat "$state/sharing.db" 2>/dev/null)" = links ] || fail "removal (not purge) lost the database"
[ -f "$root/etc/pam.d/kovasharing" ] || fail "removal (not purge) took the PAM conffile"
dpkg_root -P "${pkgs[@]}" >"$work/purge.log" 2>&1 || fail "purge: $(cat "$work/purge.log")"
for gone in usr/kova/etc etc/pam.d/kovasharing usr/kova/share usr/include/kovasharing; do
  [ ! -e "$root/$gone" ] || fail "$gone left after purge"
done
for pkg in "${pkgs[@]}"; do
  [ -z "$(installed "$pkg")" ] || [ "$(installed "$pkg")" = "unknown ok not-installed" ] ||
    fail "$pkg after purge: $(installed "$pkg")"
done
pass "reinstall over existing data, refused removal, removal keeps data, purge clears"

if [ "$failures" -ne 0 ]; then
  echo "check_packages: $failures failure(s)" >&2
  exit 1
fi
echo "check_packages: all checks passed (${#all_debs[@]} packages, version $ver)"
