#!/usr/bin/env bash
# Installs the build into a fresh temporary prefix and uses it the way an
# integrator would, with nothing from the source or build tree on the
# include path:
#   1. pkg-config, with only the installed .pc on PKG_CONFIG_PATH, must name
#      paths inside the prefix;
#   2. every installed header compiles alone as C99 (-pedantic -Werror), so a
#      header that includes one that is not installed fails;
#   3. a C program built with the pkg-config flags, and the same program
#      built by a CMake project through find_package(libapp-mgr), link and run
#      against the installed library.
# libapp-mgr leaves the porting functions to its host, so the programs also
# link the simulated platform library (the build tree's: the install holds
# one only when the tools are built); they are run, not only linked.
# Exit status 77: skipped, the build installs outside any prefix.
#
# Inputs (environment): APPMGR_BUILD_DIR, APPMGR_CONFIG, APPMGR_LIBDIR,
# APPMGR_INCLUDEDIR, APPMGR_PLATFORM_LIB, APPMGR_CONSUMER_FLAGS (instrumentation
# the build uses: the programs need the same), APPMGR_CONSUMER_LINK_FLAGS (for
# linking only), APPMGR_EMULATOR (the command that runs the target's
# programs in a cross build, empty otherwise), CC, CMAKE, CMAKE_GENERATOR,
# CMAKE_MAKE_PROGRAM, PKG_CONFIG.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
read -r -a flags <<<"${APPMGR_CONSUMER_FLAGS:-}"
read -r -a link_flags <<<"${APPMGR_CONSUMER_LINK_FLAGS:-}"
read -r -a emulator <<<"${APPMGR_EMULATOR:-}"

fail() { echo "FAIL: $*" >&2; exit 1; }
# Runs a command quietly; shows its output when it fails.
quiet() {
  local log
  log=$(mktemp "$work/log.XXXXXX")
  if ! "$@" >"$log" 2>&1; then
    cat "$log" >&2
    fail "$*"
  fi
}
# Whether path $1 lies inside directory $2 (both resolved).
inside() {
  local p d
  p=$(realpath -m "$1"); d=$(realpath -m "$2")
  [[ "$p/" == "$d/"* ]]
}

# The programs must find the libraries through what their build gave them
# (run paths), not through the caller's environment.
unset LD_LIBRARY_PATH

for dir in "$APPMGR_LIBDIR" "$APPMGR_INCLUDEDIR"; do
  if [[ "$dir" == /* ]]; then
    echo "SKIP: $dir is absolute, so the install does not go into a temporary prefix"
    exit 77
  fi
done
[ -x "$PKG_CONFIG" ] || fail "pkg-config not found (scripts/bootstrap.sh installs it)"

work=$(mktemp -d "${TMPDIR:-/tmp}/appmgr-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
libdir=$prefix/$APPMGR_LIBDIR
incdir=$prefix/$APPMGR_INCLUDEDIR/app-mgr

quiet "$CMAKE" --install "$APPMGR_BUILD_DIR" --config "$APPMGR_CONFIG" --prefix "$prefix"
echo "installed into $prefix"

# ---- pkg-config --------------------------------------------------------------
export PKG_CONFIG_PATH=$libdir/pkgconfig
"$PKG_CONFIG" --exists libapp-mgr || fail "pkg-config does not find libapp-mgr in $PKG_CONFIG_PATH"
for var in prefix libdir includedir; do
  value=$("$PKG_CONFIG" --variable="$var" libapp-mgr)
  inside "$value" "$prefix" || fail "the .pc names $var=$value, outside $prefix"
done
[ "$(realpath -m "$("$PKG_CONFIG" --variable=includedir libapp-mgr)")" = "$(realpath "$incdir")" ] ||
  fail "the .pc's includedir is not $incdir"
read -r -a pc_cflags <<<"$("$PKG_CONFIG" --cflags libapp-mgr)"
read -r -a pc_libs <<<"$("$PKG_CONFIG" --libs libapp-mgr)"
echo "pkg-config: ${pc_cflags[*]} ${pc_libs[*]}"

# ---- every installed header on its own -------------------------------------
mapfile -t headers < <(cd "$incdir" && find . -name '*.h' | sed 's|^\./||' | sort)
[ ${#headers[@]} -gt 0 ] || fail "no headers installed in $incdir"
bad=()
for h in "${headers[@]}"; do
  tu=$work/header_${h//\//_}.c
  # The declaration after the header keeps the unit non-empty for headers
  # that only define macros.
  printf '#include <%s>\ntypedef int appmgr_header_alone;\n' "$h" >"$tu"
  if ! "$CC" -std=c99 -pedantic -Wall -Wextra -Werror "${pc_cflags[@]}" \
       -c "$tu" -o "${tu%.c}.o" 2>"${tu%.c}.err"; then
    cat "${tu%.c}.err" >&2
    bad+=("$h")
  fi
done
[ ${#bad[@]} -eq 0 ] || fail "installed headers that do not compile alone: ${bad[*]}"
echo "${#headers[@]} installed headers compile alone as C99"

# ---- a program built with the pkg-config flags ------------------------------
platform_dir=$(dirname "$APPMGR_PLATFORM_LIB")
quiet "$CC" -std=c99 -Wall -Wextra -Werror "${flags[@]}" "${pc_cflags[@]}" \
  "$here/consumer/consumer.c" -o "$work/consumer-pc" "${link_flags[@]}" \
  "${pc_libs[@]}" "$APPMGR_PLATFORM_LIB" -Wl,-rpath,"$libdir" -Wl,-rpath,"$platform_dir"
echo "program built with pkg-config:"
"${emulator[@]}" "$work/consumer-pc" "$libdir" || fail "the pkg-config program failed"

# ---- a CMake project using find_package -------------------------------------
quiet "$CMAKE" -S "$here/consumer" -B "$work/cmake-consumer" -G "$CMAKE_GENERATOR" \
  ${CMAKE_MAKE_PROGRAM:+"-DCMAKE_MAKE_PROGRAM=$CMAKE_MAKE_PROGRAM"} \
  "-DCMAKE_C_COMPILER=$CC" "-DCMAKE_BUILD_TYPE=$APPMGR_CONFIG" \
  "-DCMAKE_C_FLAGS=${flags[*]}" "-DCMAKE_EXE_LINKER_FLAGS=${flags[*]} ${link_flags[*]}" \
  "-DCMAKE_PREFIX_PATH=$prefix" "-DAPPMGR_EXPECTED_PREFIX=$prefix" \
  "-DAPPMGR_PLATFORM_LIB=$APPMGR_PLATFORM_LIB"
quiet "$CMAKE" --build "$work/cmake-consumer"
echo "program built with find_package:"
"${emulator[@]}" "$work/cmake-consumer/consumer" "$libdir" || fail "the find_package program failed"
