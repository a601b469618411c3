#!/usr/bin/env bash
# The whole fault walks (tests/faults): every failable platform call and
# every allocation of the library over the walk's scenario, each failed in
# turn, in the normal build and under AddressSanitizer (with a leak check
# after every run). CI walks every allocation point of a stride only; this
# walks them all. About 1.5 minutes normal and 2 under the sanitizer on two
# cores.
#
#   scripts/fault-walks.sh            both builds
#   scripts/fault-walks.sh build      one of them (build or build-asan)
#
# APPMGR_FAULT_JOBS sets how many runs go at once (2).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
common=(-DAPPMGR_WERROR=ON)
if command -v ccache >/dev/null; then
  common+=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

walk() {
  local dir=$1; shift
  echo "=== $dir ==="
  cmake -S . -B "$dir" -G Ninja "${common[@]}" "$@" >/dev/null
  cmake --build "$dir" --target test_fault_walks
  APPMGR_FAULT_STRIDE=1 "$dir/tests/faults/test_fault_walks"
}

builds=("${@:-build build-asan}")
for b in ${builds[*]}; do
  case "$b" in
    build) walk build -DCMAKE_BUILD_TYPE=RelWithDebInfo ;;
    build-asan)
      ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
        walk build-asan -DCMAKE_BUILD_TYPE=Debug "-DAPPMGR_SANITIZE=address;undefined" ;;
    *) echo "unknown build: $b (build or build-asan)" >&2; exit 2 ;;
  esac
done
