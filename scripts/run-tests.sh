#!/usr/bin/env bash
# Builds everything and runs all tests: the normal build, then the tests
# again under AddressSanitizer + UndefinedBehaviorSanitizer (leaks included)
# and under ThreadSanitizer, then a short pass of every fuzz target (clang,
# 15 s each from its seeds, two at a time), so that a crash on a known or
# nearby input fails the run. The tests against the real browser (Chromium)
# run in the first two only: under ThreadSanitizer they would cost half a
# minute of Chromium without reaching a library thread the other tests miss.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
jobs=$(nproc)
# Warnings are errors here (an integrator's build may leave them warnings);
# ccache speeds up rebuilds where it is installed.
# Prefix /usr: the Debian packages the tests make get Debian's multiarch
# library directory, as shipped (nothing installs into /usr: the tests
# install into scratch directories).
common=(-DAPPMGR_WERROR=ON -DCMAKE_INSTALL_PREFIX=/usr)
if command -v ccache >/dev/null; then
  common+=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

run_suite() {
  local dir=$1; shift
  echo "=== $dir ==="
  cmake -S . -B "$dir" -G Ninja "${common[@]}" "$@" >/dev/null
  cmake --build "$dir"
  ctest --test-dir "$dir" --output-on-failure -j "$jobs"
}

run_suite build -DCMAKE_BUILD_TYPE=RelWithDebInfo
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  run_suite build-asan -DCMAKE_BUILD_TYPE=Debug "-DAPPMGR_SANITIZE=address;undefined"
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  run_suite build-tsan -DCMAKE_BUILD_TYPE=Debug -DAPPMGR_SANITIZE=thread -DAPPMGR_BROWSER_TESTS=OFF
echo "=== fuzz (15 s per target) ==="
FUZZ_FRESH=1 scripts/fuzz.sh 15
