#!/usr/bin/env bash
# Measures every figure of bench/README.md beside its limit, in one run, and
# writes the tables into bench/README.md (between the "figures" markers)
# and to standard output:
#
#  1. hot paths against their baselines (appmgr-bench): request round trip
#     against a raw ping-pong, send_command against a raw send, AIT intake
#     and the autostart choice, XML AIT, INI, transport-stream decoding;
#  2. the EPG search against a plain loop (appmgr-bench-search);
#  3. end-to-end latencies, each beside the floor of its path
#     (appmgr-latency; the first-paint row needs node and chromium);
#  4. 32-bit ARM: stripped size and NEEDED libraries of libapp-mgr.so, and
#     the address space and resident memory at start-up and with 128 live
#     searches (scripts/build-arm32.sh --memory), when the cross toolchain
#     is installed; otherwise the section says it was skipped.
#
# Builds what it needs in build-bench/ (Release) first. About 3 minutes on
# the 2-core development machine, plus the armhf build the first time.
#
# Usage: bench/run.sh [--no-armhf] [--no-readme]
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=$root/build-bench
armhf=yes
readme=yes
for arg in "$@"; do
  case $arg in
    --no-armhf) armhf=no ;;
    --no-readme) readme=no ;;
    *) echo "usage: bench/run.sh [--no-armhf] [--no-readme]" >&2; exit 2 ;;
  esac
done

scripts/bootstrap.sh
started=$SECONDS
load_before=$(cut -d' ' -f1-3 /proc/loadavg)

cmake_args=(-S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DAPPMGR_BUILD_BENCH=ON
            -DBUILD_TESTING=OFF -DAPPMGR_WERROR=ON)
if command -v ccache >/dev/null; then
  cmake_args+=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake "${cmake_args[@]}" >/dev/null
cmake --build "$build" --target appmgr-bench appmgr-bench-search appmgr-latency

out=$build/figures
rm -rf "$out"
mkdir -p "$out"
echo "bench/run.sh: hot paths (appmgr-bench)"
"$build/bench/appmgr-bench" --figures="$out/bench.md" --benchmark_min_time=0.2 \
  --benchmark_report_aggregates_only=true >"$out/bench.log"
echo "bench/run.sh: EPG search (appmgr-bench-search)"
"$build/bench/appmgr-bench-search" --figures="$out/search.md" \
  --benchmark_report_aggregates_only=true >"$out/search.log"
echo "bench/run.sh: end-to-end latencies (appmgr-latency)"
"$build/bench/appmgr-latency" --figures="$out/latency.md" >"$out/latency.log" 2>&1 ||
  { cat "$out/latency.log"; exit 1; }

# ---- 32-bit ARM ------------------------------------------------------------------------------
triplet=arm-linux-gnueabihf
arm_note=""
if [ $armhf = no ]; then
  arm_note="Not refreshed in this run (bench/run.sh --no-armhf)."
elif ! command -v "$triplet-g++" >/dev/null || ! command -v qemu-arm >/dev/null; then
  arm_note="Not refreshed in this run: the cross toolchain is not installed (scripts/build-arm32.sh installs it)."
else
  echo "bench/run.sh: 32-bit ARM (scripts/build-arm32.sh --memory)"
  scripts/build-arm32.sh --memory --figures="$out/armhf-memory.md" >"$out/armhf.log" 2>&1 ||
    { cat "$out/armhf.log"; exit 1; }
  lib=$(readlink -f "$root/build-arm32/src/libapp-mgr.so")
  "$triplet-strip" -o "$out/libapp-mgr.stripped" "$lib"
  stripped=$(stat -c %s "$out/libapp-mgr.stripped")
  needed=$("$triplet-readelf" -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | paste -sd' ')
  soname=$("$triplet-readelf" -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
  {
    echo "| figure | value |"
    echo "|---|---|"
    printf '| `%s` stripped | %s bytes (%s KiB) |\n' "$soname" \
      "$(printf "%'d" "$stripped")" "$(( (stripped + 1023) / 1024 ))"
    printf '| NEEDED | %s |\n' "$(sed 's/\([^ ]*\)/`\1`/g; s/ /, /g' <<<"$needed")"
  } >"$out/armhf-size.md"
fi
load_after=$(cut -d' ' -f1-3 /proc/loadavg)

# ---- the tables -----------------------------------------------------------------------------
cpu=$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -1)
{
  echo "<!-- figures: begin (written by bench/run.sh; edits here are overwritten) -->"
  echo "Measured $(date -u '+%Y-%m-%d %H:%M UTC') on $(nproc) cores of ${cpu:-an unknown CPU}"
  echo "($(uname -sr), $(c++ --version | head -1)), Release build, in $((SECONDS - started)) s."
  echo "Load average $load_before before the run and $load_after after it"
  echo "(the machine is shared with other builds: see \"Reading the figures\")."
  echo
  echo "### Hot paths against their baselines"
  echo
  echo "Work on one thread: CPU time per iteration, median of 5 repetitions. Round"
  echo "trips: p50 and p99 of every single request (wall clock). EPG search: wall"
  echo "clock to the end-of-search callback, median of 5."
  echo
  echo "| figure | measured | limit (baseline, same run) | measured | ratio | target |"
  echo "|---|---:|---|---:|---:|---:|"
  cat "$out/bench.md" "$out/search.md"
  echo
  echo "### End-to-end latencies"
  echo
  echo "| path | median | p99 | runs | floor (the same path without the library) | floor median | ratio | note |"
  echo "|---|---:|---:|---:|---|---:|---:|---|"
  cat "$out/latency.md"
  echo
  echo "### 32-bit ARM (armhf, qemu-user)"
  echo
  if [ -n "$arm_note" ]; then
    echo "$arm_note"
  else
    cat "$out/armhf-size.md"
    echo
    echo "| state | address space | resident | target |"
    echo "|---|---:|---:|---:|"
    cat "$out/armhf-memory.md"
  fi
  echo "<!-- figures: end -->"
} >"$out/figures.md"

cat "$out/figures.md"
if [ $readme = yes ]; then
  readme_file=$root/bench/README.md
  if grep -q '^<!-- figures: begin' "$readme_file" && grep -q '^<!-- figures: end' "$readme_file"; then
    # The section between the markers is replaced; the rest stays.
    awk -v table="$out/figures.md" '
      /^<!-- figures: begin/ { while ((getline line < table) > 0) print line; skip = 1; next }
      /^<!-- figures: end/ { skip = 0; next }
      !skip { print }' "$readme_file" >"$out/README.md"
    mv "$out/README.md" "$readme_file"
    echo "bench/run.sh: bench/README.md updated"
  else
    echo "bench/run.sh: bench/README.md has no figures markers; not updated" >&2
    exit 1
  fi
fi
