#!/usr/bin/env bash
# Builds everything and runs the emulator on its built-in scenario (or on
# the arguments given, e.g. --scenario examples/carousel.ini).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
# Several of these scripts may run at once (each emulator run has its own
# /tmp and network); they take turns to configure and build.
mkdir -p build
(
  flock 9
  cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DAPPMGR_WERROR=ON >/dev/null
  cmake --build build
) 9>build/.run-emulator.lock
exec build/tools/emulator/appmgr-emu "$@"
