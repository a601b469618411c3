# Sourced by check_install.sh and check_packages.sh: uses an installed
# libapp-mgr the way an integrator would, with nothing from the source or
# build tree on the include path.
#
#   check_installed_tree PREFIX LIBDIR INCDIR PLATFORM_LIB
#
#   1. pkg-config, with only the installed .pc on PKG_CONFIG_PATH, must name
#      paths inside PREFIX and INCDIR as the include directory;
#   2. every installed header compiles alone as C99 (-pedantic -Werror), so a
#      header that includes one that is not installed fails;
#   3. a C program built with the pkg-config flags, and the same program
#      built by a CMake project through find_package(libapp-mgr), link and run
#      against the library in LIBDIR (the program checks that it is the one
#      it runs on).
# libapp-mgr leaves the porting functions to its host, so the programs also
# link PLATFORM_LIB, a library providing them (the simulated platform).
#
# Sourced as `source installed_tree.sh NAME`: makes the scratch directory
# $work (NAME.XXXXXX in TMPDIR, removed on exit), after skipping (exit 77)
# a build whose library or include directory is absolute, as its install
# cannot go into a scratch prefix.
#
# Needs, in the environment, APPMGR_LIBDIR, APPMGR_INCLUDEDIR, APPMGR_CONFIG,
# APPMGR_CONSUMER_FLAGS (instrumentation the build uses: the programs need
# the same), APPMGR_CONSUMER_LINK_FLAGS (for linking only), APPMGR_EMULATOR
# (the command that runs the target's programs in a cross build, empty
# otherwise), CC, CMAKE, CMAKE_GENERATOR, CMAKE_MAKE_PROGRAM, PKG_CONFIG.
# The pkg-config program is left in $work/consumer-pc.

for dir in "$APPMGR_LIBDIR" "$APPMGR_INCLUDEDIR"; do
  if [[ "$dir" == /* ]]; then
    echo "SKIP: $dir is absolute, so the install cannot go into a scratch prefix"
    exit 77
  fi
done
work=$(mktemp -d "${TMPDIR:-/tmp}/$1.XXXXXX")
trap 'rm -rf "$work"' EXIT

installed_tree_dir=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
read -r -a flags <<<"${APPMGR_CONSUMER_FLAGS:-}"
read -r -a link_flags <<<"${APPMGR_CONSUMER_LINK_FLAGS:-}"
read -r -a emulator <<<"${APPMGR_EMULATOR:-}"

# The programs must find the libraries through what their build gave them
# (run paths), not through the caller's environment.
unset LD_LIBRARY_PATH

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

check_installed_tree() {
  local prefix=$1 libdir=$2 incdir=$3 platform_lib=$4
  [ -x "$PKG_CONFIG" ] || fail "pkg-config not found (scripts/bootstrap.sh installs it)"

  # ---- pkg-config ------------------------------------------------------------
  local var value
  export PKG_CONFIG_PATH=$libdir/pkgconfig
  "$PKG_CONFIG" --exists libapp-mgr || fail "pkg-config does not find libapp-mgr in $PKG_CONFIG_PATH"
  for var in prefix libdir includedir; do
    value=$("$PKG_CONFIG" --variable="$var" libapp-mgr)
    inside "$value" "$prefix" || fail "the .pc names $var=$value, outside $prefix"
  done
  [ "$(realpath -m "$("$PKG_CONFIG" --variable=includedir libapp-mgr)")" = "$(realpath "$incdir")" ] ||
    fail "the .pc's includedir is not $incdir"
  local pc_cflags pc_libs
  read -r -a pc_cflags <<<"$("$PKG_CONFIG" --cflags libapp-mgr)"
  read -r -a pc_libs <<<"$("$PKG_CONFIG" --libs libapp-mgr)"
  echo "pkg-config: ${pc_cflags[*]} ${pc_libs[*]}"

  # ---- every installed header on its own -----------------------------------
  local headers bad=() h tu
  mapfile -t headers < <(cd "$incdir" && find . -name '*.h' | sed 's|^\./||' | sort)
  [ ${#headers[@]} -gt 0 ] || fail "no headers installed in $incdir"
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

  # ---- a program built with the pkg-config flags ----------------------------
  quiet "$CC" -std=c99 -Wall -Wextra -Werror "${flags[@]}" "${pc_cflags[@]}" \
    "$installed_tree_dir/consumer/consumer.c" -o "$work/consumer-pc" "${link_flags[@]}" \
    "${pc_libs[@]}" "$platform_lib" -Wl,-rpath,"$libdir" -Wl,-rpath,"$(dirname "$platform_lib")"
  echo "program built with pkg-config:"
  "${emulator[@]}" "$work/consumer-pc" "$libdir" || fail "the pkg-config program failed"

  # ---- a CMake project using find_package -----------------------------------
  quiet "$CMAKE" -S "$installed_tree_dir/consumer" -B "$work/cmake-consumer" -G "$CMAKE_GENERATOR" \
    ${CMAKE_MAKE_PROGRAM:+"-DCMAKE_MAKE_PROGRAM=$CMAKE_MAKE_PROGRAM"} \
    "-DCMAKE_C_COMPILER=$CC" "-DCMAKE_BUILD_TYPE=$APPMGR_CONFIG" \
    "-DCMAKE_C_FLAGS=${flags[*]}" "-DCMAKE_EXE_LINKER_FLAGS=${flags[*]} ${link_flags[*]}" \
    "-DCMAKE_PREFIX_PATH=$prefix" "-DAPPMGR_EXPECTED_PREFIX=$prefix" \
    "-DAPPMGR_PLATFORM_LIB=$platform_lib"
  quiet "$CMAKE" --build "$work/cmake-consumer"
  echo "program built with find_package:"
  "${emulator[@]}" "$work/cmake-consumer/consumer" "$libdir" || fail "the find_package program failed"
}
