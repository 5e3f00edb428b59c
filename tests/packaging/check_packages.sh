#!/usr/bin/env bash
# Installs the Debian packages of a production build into a throwaway root with dpkg (the
# maintainer scripts run too, outside a chroot, against the root) and checks dependencies,
# files, modes, owners and links; builds against the root; then reinstall over existing data,
# removal and purge.   Usage: check_packages.sh DEB_DIR SOURCE_DIR   (as root)
set -euo pipefail
debs=$(cd "$1" && pwd) src=$(cd "$2" && pwd)
[ "$(id -u)" -eq 0 ] || { echo "check_packages: run as root (uid 1 gets directories)" >&2; exit 1; }
failures=0
fail() {
  echo "FAIL: $*" >&2
  failures=$((failures + 1))
}

runtime_deb=$(ls "$debs"/libkovasharing1_*.deb)
dev_deb=$(ls "$debs"/libkovasharing-dev_*.deb)
tools_deb=$(ls "$debs"/kovasharing-tools_*.deb 2>/dev/null || true)
all_debs=("$runtime_deb" "$dev_deb")
[ -z "$tools_deb" ] || all_debs+=("$tools_deb")
ver=$(dpkg-deb -f "$runtime_deb" Version)
libdir=usr/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)
root=$(mktemp -d /tmp/kova-pkgroot.XXXXXX) work=$(mktemp -d /tmp/kova-pkgwork.XXXXXX)
trap 'rm -rf "$root" "$work"' EXIT
chmod 0755 "$root"
admin=$root/var/lib/dpkg
mkdir -p "$admin/info" "$admin/updates" "$admin/triggers"
touch "$admin/status" "$admin/available"
dpkg_root() { dpkg --root="$root" --force-script-chrootless --log=/dev/null "$@"; }
installed() { dpkg-query --admindir="$admin" -W -f='${Status}' "$1" 2>/dev/null; }
depends() { dpkg-deb -f "$1" Depends | tr -d ' ' | tr ',' '\n'; }

# The packages named in Depends enter the root's package list as this machine has them
# (without their files), so that dpkg checks the dependencies for real.
for name in $(for deb in "${all_debs[@]}"; do depends "$deb"; done | sed 's/(.*//' | sort -u); do
  case $name in libkovasharing*) continue ;; esac
  dpkg-query -s "$name" >/dev/null 2>&1 || continue
  { dpkg-query -s "$name"; echo; } >>"$admin/status"
  touch "$admin/info/$(dpkg-query -W -f='${binary:Package}' "$name").list"
done

# Every library that a packaged ELF file needs (linked, or named for opening at run time, which
# dpkg-shlibdeps cannot see) comes from the package itself, libkovasharing1 or one in Depends.
check_shlib_depends() {
  local deb=$1 tree=$work/x-$2 deps elf soname pkg path
  dpkg-deb -x "$deb" "$tree"
  deps=$(depends "$deb" | sed 's/(.*//')
  while read -r elf; do
    while read -r soname; do
      pkg=
      if [ -e "$work/x-runtime/$libdir/$soname" ]; then pkg=libkovasharing1; else
        path=$(ldconfig -p | awk -v s="$soname" '$1 == s && !f {print $NF; f = 1}')
        # With merged /usr a library may be known by either path.
        for path in ${path:+"$path" "$(readlink -f "$path")" "${path#/usr}" "/usr$path"}; do
          pkg=$(dpkg -S "$path" 2>/dev/null | head -n1 | cut -d: -f1) && [ -n "$pkg" ] && break
        done
      fi
      if [ -z "$pkg" ]; then
        fail "$2: no package provides $soname (needed by ${elf#"$tree"/})"
      elif [ "$pkg" != "$(dpkg-deb -f "$deb" Package)" ] && ! grep -qx "$pkg" <<<"$deps"; then
        fail "$2: Depends lacks $pkg for $soname (needed by ${elf#"$tree"/})"
      fi
    done < <({
      readelf -d "$elf" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'
      strings -a "$elf" | grep -E '^lib[A-Za-z0-9_+.-]+\.so\.[0-9]+$' || true
    } | sort -u)
  done < <(find "$tree" -type f -exec sh -c 'head -c4 "$1" | grep -q ELF' _ {} \; -print)
}
check_shlib_depends "$runtime_deb" runtime
[ -z "$tools_deb" ] || check_shlib_depends "$tools_deb" tools
[ "$(dpkg-deb -f "$dev_deb" Depends)" = "libkovasharing1 (= $ver), libjsoncpp-dev" ] ||
  fail "libkovasharing-dev Depends: $(dpkg-deb -f "$dev_deb" Depends)"
[ -z "$tools_deb" ] || depends "$tools_deb" | grep -qx "libkovasharing1(=$ver)" ||
  fail "kovasharing-tools Depends lacks libkovasharing1 (= $ver)"
depends "$runtime_deb" | grep -qx libpam-runtime ||
  fail "libkovasharing1 does not depend on libpam-runtime (the PAM service includes its stacks)"
shlibs=$(dpkg-deb --ctrl-tarfile "$runtime_deb" | tar -xOf - ./shlibs 2>/dev/null || true)
for lib in libkovasharing libkovaplatform; do
  grep -qx "$lib 1 libkovasharing1 (>= $ver)" <<<"$shlibs" || fail "shlibs lacks $lib: $shlibs"
done
echo "ok: control fields and dependencies of ${#all_debs[@]} packages"

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

files=("$libdir"/cmake/kovasharing/kovasharing{Config,ConfigVersion,Targets}.cmake
  "$libdir/pkgconfig/kovasharing.pc" etc/pam.d/kovasharing)
[ -z "$tools_deb" ] || files+=(usr/bin/kovasharing "$libdir/kovasharing/cgi-bin/kovasharing-gate"
  usr/share/kovasharing/gate/kovasharing-gate.css usr/share/man/man1/kovasharing.1.gz
  usr/share/locale/de/LC_MESSAGES/kovasharing-gate.mo)
for lib in libkovasharing libkovaplatform; do
  files+=("$libdir/$lib.so.$ver")
  [ "$(readlink "$root/$libdir/$lib.so.1")" = "$lib.so.$ver" ] || fail "$lib.so.1 link"
  [ "$(readlink "$root/$libdir/$lib.so")" = "$lib.so.1" ] || fail "$lib.so link"
  dynamic=$(readelf -d "$root/$libdir/$lib.so.$ver" || true)
  grep -q "(SONAME).*\[$lib.so.1\]" <<<"$dynamic" || fail "$lib: SONAME not $lib.so.1"
  ! grep -Eq '\((RPATH|RUNPATH)\)' <<<"$dynamic" || fail "$lib carries a run path"
done
for f in "${files[@]}"; do [ -f "$root/$f" ] || fail "$f missing"; done
# The runtime package has the versioned files, the development package only the namelinks.
! dpkg-deb -c "$runtime_deb" | grep -q "/$libdir/libkovasharing.so ->" ||
  fail "the namelink libkovasharing.so is in the runtime package"
! dpkg-deb -c "$dev_deb" | awk '$6 ~ /\.so\./ {f = 1} END {exit !f}' ||
  fail "versioned libraries in the development package"
diff -r "$src/db_schema" "$root/usr/kova/share/kovasharing/db_schema" || fail "schema scripts"
diff -r "$src/include" "$root/usr/include" || fail "public headers"
cmp -s "$src/pam/kovasharing" "$root/etc/pam.d/kovasharing" || fail "PAM service file differs"
# Everything is root's, files 644 and directories 755, but for the programs and the state
# directories of the system account.
want="770 1:1 d usr/kova/etc/private/autoblock
770 1:1 d usr/kova/etc/private/session/sharing"
[ -z "$tools_deb" ] || want+="
755 0:0 f $libdir/kovasharing/cgi-bin/kovasharing-gate
755 0:0 f usr/bin/kovasharing"
odd=$(cd "$root" && find usr etc ! -type l -printf '%m %U:%G %y %p\n' | sort |
  { grep -Ev '^(644 0:0 f|755 0:0 d) ' || true; })
[ "$odd" = "$(sort <<<"$want")" ] || fail "modes and owners: $odd"
echo "ok: files, modes, owners and links of the installed packages"

# Programs built with the root's CMake package and pkg-config file run on its libraries.
[ "$(PKG_CONFIG_PATH="$root/$libdir/pkgconfig" pkg-config --modversion kovasharing)" = "$ver" ] ||
  fail "pkg-config version"
LD_LIBRARY_PATH="$root/$libdir" "$src/tests/consumer/run_consumer.sh" "$root/usr" \
  "$src/tests/consumer/project" "$work/consumer" >"$work/consumer.log" 2>&1 ||
  fail "an application built against the root: $(cat "$work/consumer.log")"

state=$root/usr/kova/etc/private/session/sharing
printf 'links' >"$state/sharing.db"
chown 1:1 "$state/sharing.db"
chmod 0700 "$state" # a damaged mode is put right by the next configure
dpkg_root -i "$runtime_deb" >"$work/reinstall.log" 2>&1 || fail "reinstall: $(cat "$work/reinstall.log")"
[ "$(stat -c '%a %u:%g' "$state")" = "770 1:1" ] || fail "reinstall left $state as it was"
[ "$(cat "$state/sharing.db" 2>/dev/null)" = links ] || fail "reinstall lost the database"
# Removing the library while the others need it is refused.
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
  case $(installed "$pkg") in "" | "unknown ok not-installed") ;; *) fail "$pkg after purge" ;; esac
done
echo "ok: reinstall over existing data, refused removal, removal keeps data, purge clears"
[ "$failures" -eq 0 ] || { echo "check_packages: $failures failure(s)" >&2; exit 1; }
echo "check_packages: all checks passed (${#all_debs[@]} packages, version $ver)"
