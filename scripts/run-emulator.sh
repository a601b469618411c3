#!/usr/bin/env bash
# Builds everything and runs the emulator on its built-in scenario.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/bootstrap.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build
exec build/tools/emulator/appmgr-emu "$@"
