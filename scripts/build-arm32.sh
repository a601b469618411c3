#!/usr/bin/env bash
# Cross builds everything for the receiver's 32-bit ARM (armhf) into
# build-arm32/ and runs the whole test suite there under qemu-user.
#
#  1. Installs the host tools when missing (cross compiler and binutils,
#     qemu-user, cmake, ninja, openssl), using sudo when not root.
#  2. Target libraries (libcurl, libxml2, libdvbpsi, zlib, GoogleTest,
#     Google Benchmark):
#     armhf packages installed through multiarch are used when all of them
#     are there. Otherwise build-arm32/sysroot/ is made from the same Debian
#     armhf packages, downloaded with apt-get download and unpacked; the host's
#     own packages are left alone. (Multiarch needs the armhf and the host
#     copies of every shared library at the same version, which a host a few
#     updates ahead or behind the archive's armhf side does not have.)
#  3. Configures build-arm32/ with cmake/toolchain-armhf.cmake, benchmarks
#     included, and builds.
#  4. Runs ctest. Test programs run through qemu-arm (the toolchain's
#     CMAKE_CROSSCOMPILING_EMULATOR). Some tests start target programs
#     themselves (the emulator's scenario checks, the install test's
#     consumers); those need the kernel to hand ARM programs to qemu
#     (binfmt_misc). ctest therefore runs in a user namespace of its own
#     with a private binfmt_misc entry for ARM: nothing changes for the rest
#     of the machine. Where that is not allowed and the host has no such
#     entry, the tests that need it are excluded by name (below) and listed.
#  5. Prints the memory figures of bench/README.md (appmgr-memory).
#
# Usage: scripts/build-arm32.sh [extra ctest arguments]
#        scripts/build-arm32.sh --memory [appmgr-memory arguments]
# --memory builds only the library and appmgr-memory, runs no test, and
# passes the rest to appmgr-memory (bench/run.sh uses it).
set -euo pipefail
memory_only=no
if [ "${1:-}" = --memory ]; then
  memory_only=yes
  shift
fi
cd "$(dirname "$0")/.."
root=$PWD
build=$root/build-arm32
triplet=arm-linux-gnueabihf
jobs=$(nproc)
started=$SECONDS

sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q 'install ok installed'; }
apt_update() {
  # A mirror caught mid-sync fails for one index while the others are
  # fine: go on, the install (or the download) says whether anything needed
  # is missing.
  "${sudo_cmd[@]}" apt-get update -qq || echo "build-arm32: apt-get update reported errors; going on"
}

# ---- 1. host tools -------------------------------------------------------------
host_packages=(cmake ninja-build pkg-config "g++-$triplet" "binutils-$triplet" qemu-user
               qemu-user-binfmt openssl util-linux)
missing=()
for p in "${host_packages[@]}"; do installed "$p" || missing+=("$p"); done
if [ ${#missing[@]} -gt 0 ]; then
  echo "build-arm32: installing ${missing[*]}"
  apt_update
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq "${missing[@]}"
fi

# ---- 2. target libraries -------------------------------------------------------
target_packages=(libcurl4-openssl-dev libxml2-dev libdvbpsi-dev zlib1g-dev libgtest-dev libgmock-dev libbenchmark-dev)
multiarch=yes
for p in "${target_packages[@]}"; do installed "$p:armhf" || multiarch=no; done
sysroot=""
if [ $multiarch = yes ]; then
  echo "build-arm32: target libraries from the host's multiarch armhf packages"
  qemu_prefix=/usr/$triplet
else
  sysroot=$build/sysroot
  qemu_prefix=$sysroot
  if ! dpkg --print-foreign-architectures | grep -qx armhf; then
    echo "build-arm32: adding the armhf architecture to apt"
    "${sudo_cmd[@]}" dpkg --add-architecture armhf
    apt_update
  elif ! apt-cache show libcurl4-openssl-dev:armhf >/dev/null 2>&1; then
    apt_update
  fi
  # The packages and everything they depend on, armhf only (host tools such
  # as icu-devtools pull in host packages, which a sysroot does not need).
  mapfile -t closure < <(
    apt-cache depends --recurse --no-recommends --no-suggests --no-conflicts --no-breaks \
      --no-replaces --no-enhances "${target_packages[@]/%/:armhf}" |
    grep -E '^[a-z0-9].*:armhf$' | sort -u)
  [ ${#closure[@]} -gt 0 ] || { echo "build-arm32: apt knows no armhf packages"; exit 1; }
  debs=$build/armhf-debs
  mkdir -p "$debs"
  # Exact file names (name_version_arch.deb) tell whether the sysroot is
  # up to date. (apt-get download leaves out files that are already in the
  # directory it runs in, so it is asked from an empty one.)
  empty=$(mktemp -d)
  mapfile -t wanted < <(cd "$empty" && apt-get download --print-uris "${closure[@]}" |
                        awk '{print $2}' | sort)
  rmdir "$empty"
  [ ${#wanted[@]} -eq ${#closure[@]} ] ||
    { echo "build-arm32: apt names ${#wanted[@]} files for ${#closure[@]} armhf packages"; exit 1; }
  if [ ! -f "$sysroot/.packages" ] || [ ! -f "$sysroot/var/lib/dpkg/status" ] ||
     ! diff -q <(printf '%s\n' "${wanted[@]}") "$sysroot/.packages" >/dev/null; then
    echo "build-arm32: making $sysroot from ${#wanted[@]} Debian armhf packages"
    need=()
    for f in "${wanted[@]}"; do [ -f "$debs/$f" ] || need+=("${f%%_*}:armhf"); done
    # apt-get download needs no root; as root it only warns that its
    # sandbox user cannot write here.
    [ ${#need[@]} -eq 0 ] || (cd "$debs" && apt-get download -qq "${need[@]}" 2>&1 |
                              grep -v 'unsandboxed as root' || true)
    for f in "${wanted[@]}"; do [ -f "$debs/$f" ] || { echo "build-arm32: $f not downloaded"; exit 1; }; done
    rm -rf "$sysroot"
    mkdir -p "$sysroot"
    for f in "${wanted[@]}"; do dpkg-deb -x "$debs/$f" "$sysroot"; done
    # Links that point at absolute paths (libm.so -> /lib/...) must point
    # into the sysroot.
    while IFS= read -r link; do
      target=$(readlink "$link")
      ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$sysroot$target")" "$link"
    done < <(find "$sysroot" -type l -lname '/*')
    # What a dpkg database would say about these packages, for the Debian
    # packages of this build (packaging/debian.cmake): their control
    # stanzas as installed (var/lib/dpkg/status), and in DEBIAN/ the symbols
    # and shlibs files through which dpkg-shlibdeps turns a library the
    # build links into a dependency on its package.
    mkdir -p "$sysroot/DEBIAN" "$sysroot/var/lib/dpkg"
    for f in "${wanted[@]}"; do
      { dpkg-deb --field "$debs/$f"; printf 'Status: install ok installed\n\n'; } \
        >>"$sysroot/var/lib/dpkg/status"
      for member in symbols shlibs; do
        dpkg-deb --info "$debs/$f" $member >>"$sysroot/DEBIAN/$member" 2>/dev/null || true
      done
    done
    printf '%s\n' "${wanted[@]}" >"$sysroot/.packages"
  fi
fi

# ---- 3. configure and build ----------------------------------------------------
# Prefix /usr and Debian's multiarch library directory (usr/lib/$triplet)
# for the build's Debian packages (cpack; README). GNUInstallDirs names
# that directory itself in native builds only.
cmake_args=(-S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DAPPMGR_WERROR=ON
            -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR=lib/$triplet
            -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-armhf.cmake" -DAPPMGR_BUILD_BENCH=ON)
[ -n "$sysroot" ] && cmake_args+=(-DAPPMGR_ARMHF_SYSROOT="$sysroot")
if command -v ccache >/dev/null; then
  cmake_args+=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake "${cmake_args[@]}" >/dev/null
if [ $memory_only = yes ]; then
  cmake --build "$build" -j "$jobs" --target app-mgr appmgr-memory
else
  cmake --build "$build" -j "$jobs"
fi
built=$SECONDS

# ---- 4. tests under qemu-user ---------------------------------------------------
binfmt_conf=/usr/lib/binfmt.d/qemu-arm.conf
ns_binfmt() {
  unshare --user --map-root-user --mount sh -c \
    'mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc' 2>/dev/null
}
excluded=()
if [ -f $binfmt_conf ] && ns_binfmt; then
  mode=namespace
elif grep -qs '^enabled' /proc/sys/fs/binfmt_misc/qemu-arm; then
  mode=host
else
  mode=none
  # These run appmgr-emu (an ARM program) from a cmake -P or shell script,
  # not through the emulator prefix ctest adds, so they need binfmt_misc.
  excluded=(emulator_builtin_scenario emulator_bad_scenarios emulator_concurrent_runs)
fi
memory_args=()
if [ $memory_only = yes ]; then
  memory_args=("$@")
  set --
fi
ctest_args=(--test-dir "$build" --output-on-failure -j "$jobs" "$@")
if [ ${#excluded[@]} -gt 0 ]; then
  echo "build-arm32: no binfmt_misc entry for ARM can be had here; excluded: ${excluded[*]}"
  ctest_args+=(-E "^($(IFS='|'; echo "${excluded[*]}"))\$")
fi
export QEMU_LD_PREFIX=$qemu_prefix
tests_status=0
if [ $memory_only = yes ]; then
  echo "build-arm32: no tests (--memory)"
elif [ $mode = namespace ]; then
  echo "build-arm32: running the tests under qemu-arm (binfmt_misc: $mode)"
  unshare --user --map-root-user --mount bash -c '
    mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc &&
    cat "$1" >/proc/sys/fs/binfmt_misc/register || exit 1
    shift
    exec ctest "$@"' bash "$binfmt_conf" "${ctest_args[@]}" || tests_status=$?
else
  echo "build-arm32: running the tests under qemu-arm (binfmt_misc: $mode)"
  ctest "${ctest_args[@]}" || tests_status=$?
fi
tested=$SECONDS

# ---- 5. memory figures -----------------------------------------------------------
echo "build-arm32: memory of a process running libapp-mgr.so (armhf, under qemu-user)"
# It moves into a private /tmp itself; under qemu (a process with threads
# of its own) that takes the root of a user namespace.
memory_run=(qemu-arm -L "$qemu_prefix" "$build/bench/appmgr-memory" "${memory_args[@]}")
[ $mode = namespace ] && memory_run=(unshare --user --map-root-user "${memory_run[@]}")
memory_status=0
"${memory_run[@]}" || memory_status=$?

echo "build-arm32: build $((built - started)) s, tests $((tested - built)) s," \
     "total $((SECONDS - started)) s"
[ ${#excluded[@]} -eq 0 ] || echo "build-arm32: tests excluded (no binfmt_misc): ${excluded[*]}"
[ $tests_status -eq 0 ] || { echo "build-arm32: tests FAILED"; exit 1; }
[ $memory_status -eq 0 ] || { echo "build-arm32: appmgr-memory FAILED"; exit 1; }
[ $memory_only = yes ] || echo "build-arm32: all tests passed"
