#!/usr/bin/env bash
# Makes the Debian packages of the build with cpack, installs them with dpkg
# into an empty root of its own and uses them there:
#   1. three packages of the compiler's architecture: the runtime one named
#      after the library's SONAME, -dev and -tools; every file the build
#      installs is in exactly one of them;
#   2. dpkg --install puts them into the empty root (see below) and leaves
#      all three installed and configured;
#   3. the runtime package depends on exactly what dpkg-shlibdeps finds for
#      its library (nothing missing, nothing added by hand), and
#      dpkg-shlibdeps sees no library linked in vain;
#   4. the root passes the install test's checks (installed_tree.sh:
#      pkg-config, headers alone, two programs built against the root and
#      run on its library and simulated platform);
#   5. the runtime package's shlibs file gives a program built against the
#      library a dependency on the runtime package of this version or later;
#   6. the packaged emulator runs its built-in scenario from the root;
#   7. a build with debug information also makes the -dbgsym packages of the
#      runtime and tools packages: they install beside them, and the
#      packaged library is stripped and finds its symbols there by build ID.
#
# Why dpkg --root and not dpkg-deb --extract: dpkg checks the dependencies,
# unpacks, configures and records the packages as on a receiver image,
# which is what the packages must survive; extracting only unpacks files.
# --root gives dpkg the root's own database (ROOT/var/lib/dpkg) and files,
# and --log keeps its log in the scratch directory: nothing on the machine
# changes. The root's database is first given the packages that ours
# depend on, copied from the database of wherever the programs take those
# libraries from when they run (the machine's own, or a cross build's
# sysroot), so dpkg checks the dependencies against them; their files are
# not copied. dpkg runs as root; other users run it under fakeroot.
#
# Exit status 77: skipped (not a Debian system, or the build installs
# outside any prefix).
#
# Inputs (environment): APPMGR_BUILD_DIR, APPMGR_LIBRARY (the built
# libapp-mgr.so), APPMGR_DEB_TARGET_ROOT (cross builds: the target's
# package tree, see packaging/debian.cmake), CPACK and those of
# installed_tree.sh.
set -euo pipefail

if ! command -v dpkg >/dev/null; then
  echo "SKIP: no dpkg: not a Debian system"
  exit 77
fi
source "$(dirname "$0")/installed_tree.sh" appmgr-packages
for tool in dpkg-deb dpkg-shlibdeps dpkg-architecture readelf; do
  command -v $tool >/dev/null || fail "$tool not found (scripts/bootstrap.sh installs dpkg-dev and binutils)"
done
dpkg_cmd=(dpkg)
if [ "$(id -u)" -ne 0 ]; then
  command -v fakeroot >/dev/null || fail "fakeroot not found (scripts/bootstrap.sh installs it)"
  dpkg_cmd=(fakeroot dpkg)
fi

# Package fields as lists: one relation per line, without the spaces
# around them.
relations() { tr ',' '\n' | sed 's/^ *//; s/ *$//; /^$/d' | sort; }
field() { dpkg-deb --field "$1" "$2"; }

# ---- 1. the package set ---------------------------------------------------------
arch=$(dpkg-architecture -qDEB_HOST_ARCH -t"$("$CC" -dumpmachine)" 2>/dev/null)
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH -a"$arch" 2>/dev/null)
soname=$(readelf -d "$APPMGR_LIBRARY" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ -n "$soname" ] || fail "$APPMGR_LIBRARY has no SONAME"
# Debian's rule: libfoo.so.N is in libfooN, libfoo2.so.N in libfoo2-N.
base=${soname%%.so.*}
[[ $base == *[0-9] ]] && runtime_name=$base-${soname##*.so.} || runtime_name=$base${soname##*.so.}

quiet "$CPACK" --config "$APPMGR_BUILD_DIR/CPackConfig.cmake" -B "$work/cpack"
declare -A deb=()
for f in "$work"/cpack/*.deb; do
  deb[$(field "$f" Package)]=$f
  [ "$(field "$f" Architecture)" = "$arch" ] ||
    fail "$(basename "$f") is for $(field "$f" Architecture), the compiler builds for $arch"
done
expected=("$runtime_name" libapp-mgr-dev libapp-mgr-tools)
[ "$(printf '%s\n' "${!deb[@]}" | sort)" = "$(printf '%s\n' "${expected[@]}" | sort)" ] ||
  fail "packages made: ${!deb[*]}; expected ${expected[*]}"
runtime=${deb[$runtime_name]}
version=$(field "$runtime" Version)
for name in libapp-mgr-dev libapp-mgr-tools; do
  field "${deb[$name]}" Depends | relations | grep -xF "$runtime_name (= $version)" >/dev/null ||
    fail "$name does not depend on $runtime_name (= $version)"
done
echo "packages: ${expected[*]} $version $arch"

# Every file a plain install makes is in exactly one package.
quiet "$CMAKE" --install "$APPMGR_BUILD_DIR" --config "$APPMGR_CONFIG" --prefix "$work/all/usr"
(cd "$work/all" && find . ! -type d | sort) >"$work/installed.list"
for f in "${deb[@]}"; do
  dpkg-deb --fsys-tarfile "$f" | tar -tf - | sed '/\/$/d'
done | sort >"$work/packaged.list"
dups=$(uniq -d "$work/packaged.list")
[ -z "$dups" ] || fail "files in more than one package: $dups"
if ! diff -u "$work/installed.list" "$work/packaged.list" >"$work/files.diff"; then
  cat "$work/files.diff" >&2
  fail "the packages do not hold what the build installs (- only installed, + only packaged)"
fi
echo "$(wc -l <"$work/packaged.list") installed files, each in one package"

# ---- 2. dpkg into an empty root -------------------------------------------------
root=$work/root
admindir=$root/var/lib/dpkg
mkdir -p "$admindir/info" "$admindir/updates"
: >"$admindir/status"
[ "$arch" = "$(dpkg --print-architecture)" ] ||
  quiet "${dpkg_cmd[@]}" --root="$root" --add-architecture "$arch"
source_admindir=/var/lib/dpkg
[ -n "${APPMGR_DEB_TARGET_ROOT:-}" ] && source_admindir=$APPMGR_DEB_TARGET_ROOT/var/lib/dpkg
# The packages ours depend on (any one of alternatives), as the source
# database has them.
for f in "${deb[@]}"; do field "$f" Depends | relations; done |
  sed 's/ *([^)]*)//g' | sort -u >"$work/depends.list"
while IFS= read -r relation; do
  found=no
  for name in ${relation//|/ }; do
    [ -n "${deb[$name]:-}" ] && { found=yes; break; }
    if stanza=$(dpkg-query --admindir="$source_admindir" --status "$name:$arch" 2>/dev/null); then
      printf '%s\n\n' "$stanza" >>"$admindir/status"
      found=yes
      break
    fi
  done
  [ $found = yes ] || fail "no package in $source_admindir provides '$relation' for $arch"
done <"$work/depends.list"
quiet "${dpkg_cmd[@]}" --root="$root" --log="$work/dpkg.log" --install "${deb[@]}"
states=$(dpkg-query --root="$root" --show --showformat='${db:Status-Abbrev}${Package}\n' "${expected[@]}")
[ "$(echo "$states" | grep -c '^ii ')" -eq 3 ] || fail "dpkg left the packages as: $states"
audit=$(dpkg --root="$root" --audit "${expected[@]}" 2>&1) || true
[ -z "$audit" ] || fail "dpkg --audit of the root: $audit"
echo "dpkg installed ${expected[*]} into $root"

# ---- 3. the runtime package's dependencies --------------------------------------
# dpkg-shlibdeps wants a source package around it, an empty one will do.
mkdir -p "$work/shlibdeps/debian"
: >"$work/shlibdeps/debian/control"
search=()
if [ -n "${APPMGR_DEB_TARGET_ROOT:-}" ]; then
  search=(-l"$APPMGR_DEB_TARGET_ROOT/lib/$multiarch" -l"$APPMGR_DEB_TARGET_ROOT/usr/lib/$multiarch")
fi
# Writes dpkg-shlibdeps' Depends for the files given (after its options)
# into $1, one relation per line. With --strict, dpkg-shlibdeps' warnings
# of a library linked for nothing fail.
shlibdeps() {
  local out=$1 strict=no
  shift
  [ "$1" = --strict ] && { strict=yes; shift; }
  (cd "$work/shlibdeps" && DEB_HOST_ARCH=$arch dpkg-shlibdeps --warnings=6 -O "${search[@]}" "$@") \
    >"$out.raw" 2>"$work/shlibdeps.err" || { cat "$work/shlibdeps.err" >&2; fail "dpkg-shlibdeps $*"; }
  if [ $strict = yes ] && grep -E 'useless dependency|should not be linked' "$work/shlibdeps.err" >&2; then
    fail "dpkg-shlibdeps: libraries linked for nothing"
  fi
  sed 's/^shlibs:Depends=//' "$out.raw" | relations >"$out"
}
library=$root/usr/$APPMGR_LIBDIR/$(readlink "$root/usr/$APPMGR_LIBDIR/$soname")
[ -f "$library" ] || fail "the root has no $soname"
field "$runtime" Depends | relations >"$work/depends.package"
shlibdeps "$work/depends.found" --strict "$library"
if ! diff -u "$work/depends.found" "$work/depends.package" >"$work/depends.diff"; then
  cat "$work/depends.diff" >&2
  fail "$runtime_name's Depends differ from dpkg-shlibdeps' (- found only, + packaged only)"
fi
echo "$runtime_name depends on what dpkg-shlibdeps finds: $(paste -sd' ' "$work/depends.found")"

# ---- 4. programs built against the root ----------------------------------------
check_installed_tree "$root/usr" "$root/usr/$APPMGR_LIBDIR" "$root/usr/$APPMGR_INCLUDEDIR/app-mgr" \
  "$root/usr/$APPMGR_LIBDIR/libappmgr-platform-sim.so"

# ---- 5. what a program built against the library depends on ------------------
dpkg-deb --raw-extract "$runtime" "$work/runtime-package"
# (The program links the simulated platform for the library's sake only.)
shlibdeps "$work/consumer.depends" -S"$work/runtime-package" "$work/consumer-pc"
consumer_depends=$(grep "^$runtime_name\\b" "$work/consumer.depends" || true)
[ "$consumer_depends" = "$runtime_name (>= ${version%-*})" ] ||
  fail "a program built against $soname depends on '$consumer_depends', not $runtime_name (>= ${version%-*})"
echo "a program built against $soname depends on $consumer_depends"

# ---- 6. the packaged emulator ---------------------------------------------------
"${emulator[@]}" "$root/usr/bin/appmgr-emu" >"$work/emu.log" 2>&1 ||
  { cat "$work/emu.log" >&2; fail "the packaged appmgr-emu failed its built-in scenario"; }
grep -m1 'scenario passed' "$work/emu.log" ||
  { cat "$work/emu.log" >&2; fail "the packaged appmgr-emu did not report its scenario passed"; }

# ---- 7. debug symbols -------------------------------------------------------------
if readelf -S --wide "$APPMGR_LIBRARY" | grep -q ' \.debug_info '; then
  ddebs=()
  for name in "$runtime_name" libapp-mgr-tools; do
    ddeb=$(compgen -G "$work/cpack/${name}-dbgsym_*.ddeb") || fail "no ${name}-dbgsym package was made"
    [ "$(field "$ddeb" Depends)" = "$name (= $version)" ] || fail "${name}-dbgsym does not depend on $name (= $version)"
    ddebs+=("$ddeb")
  done
  quiet "${dpkg_cmd[@]}" --root="$root" --log="$work/dpkg.log" --install "${ddebs[@]}"
  ! readelf -S --wide "$library" | grep -q ' \.debug_info ' || fail "the packaged $soname keeps its debug information"
  id=$(readelf -n "$library" | sed -n 's/.*Build ID: *//p')
  [ -n "$id" ] || fail "the packaged $soname has no build ID"
  debug=$root/usr/lib/debug/.build-id/${id:0:2}/${id:2}.debug
  [ -f "$debug" ] || fail "${runtime_name}-dbgsym has no $debug"
  [ "$(readelf -n "$debug" | sed -n 's/.*Build ID: *//p')" = "$id" ] || fail "$debug is not for the packaged library"
  readelf -S --wide "$debug" | grep -q ' \.debug_info ' || fail "$debug holds no debug information"
  echo "debug symbols: ${runtime_name}-dbgsym and libapp-mgr-tools-dbgsym, the library's by build ID $id"
fi
