#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan + UBSan, build-fuzz/) and runs
# each for SECONDS (default 60) on its seed corpus, two at a time, then
# prints per target the inputs run, the coverage (edges) and the findings.
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]
#
# Seeds: fuzz/corpus/<target>/ and the test data that fuzz/corpus/<target>.seeds
# lists; dictionaries: fuzz/dict/ (the target's name picks one, see
# dict_of). New inputs go to build-fuzz/corpus/<target>/ and are kept for the
# next run; findings (crash-, leak-, timeout-, oom- files) go to
# build-fuzz/findings/ (a target's findings of an earlier run are removed
# when it runs again). The exit status is 1 when any target found
# something (or could not run).
#
# Environment: FUZZ_JOBS (targets at a time, default 2), FUZZ_BUILD_DIR
# (default build-fuzz), FUZZ_FRESH=1 (start from the seeds only: the
# working corpus is emptied first, as CI does).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
seconds=${1:-60}
shift || true
jobs=${FUZZ_JOBS:-2}
build=${FUZZ_BUILD_DIR:-build-fuzz}

scripts/bootstrap.sh >/dev/null
launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DAPPMGR_BUILD_FUZZ=ON -DBUILD_TESTING=OFF -DAPPMGR_BUILD_TOOLS=OFF \
  "-DAPPMGR_SANITIZE=address;undefined" -DAPPMGR_WERROR=ON "${launcher[@]}" >/dev/null
cmake --build "$build" --target fuzz

if [ $# -gt 0 ]; then
  targets=("$@")
else
  mapfile -t targets < <(cd "$build/fuzz" && ls fuzz_* | sort)
fi

# The dictionary of a target: the dispatcher targets share the wire ids,
# the XML readers the element names, the decoders of sections their own.
dict_of() {
  case $1 in
    fuzz_dispatch_*|fuzz_parse_parameter) echo fuzz/dict/protocol.dict ;;
    fuzz_xml_ait_*) echo fuzz/dict/xml_ait.dict ;;
    fuzz_stream_event_description) echo fuzz/dict/stream_event_description.dict ;;
    fuzz_urls) echo fuzz/dict/urls.dict ;;
    fuzz_ini) echo fuzz/dict/ini.dict ;;
    fuzz_ts_*) echo fuzz/dict/ts.dict ;;
    *) echo "" ;;
  esac
}

mkdir -p "$build/findings" "$build/logs"
run_one() {
  local target=$1
  local work="$build/corpus/$target"
  [ "${FUZZ_FRESH:-0}" = 1 ] && rm -rf "$work"
  rm -f "$build/findings/$target-"*
  mkdir -p "$work"
  local args=(-max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 -print_final_stats=1
              -artifact_prefix="$build/findings/$target-")
  local dict
  dict=$(dict_of "$target")
  [ -n "$dict" ] && args+=(-dict="$dict")
  local dirs=("$work")
  [ -d "fuzz/corpus/$target" ] && dirs+=("fuzz/corpus/$target")
  if [ -f "fuzz/corpus/$target.seeds" ]; then
    local list="$build/logs/$target.seeds"
    grep -v '^\s*\(#\|$\)' "fuzz/corpus/$target.seeds" | sed "s|^|$root/|" | paste -sd, - > "$list"
    args+=(-seed_inputs=@"$list")
  fi
  "$build/fuzz/$target" "${args[@]}" "${dirs[@]}" > "$build/logs/$target.log" 2>&1
}
export -f run_one dict_of
export build seconds root

status=0
printf '%s\n' "${targets[@]}" | xargs -P "$jobs" -I{} bash -c 'run_one {} || true'

printf '%-34s %12s %8s %8s %9s\n' target execs edges corpus findings
for target in "${targets[@]}"; do
  log="$build/logs/$target.log"
  execs=$( (grep -o 'stat::number_of_executed_units: [0-9]*' "$log" || true) | awk '{print $2}' | tail -1)
  edges=$( (grep -o 'cov: [0-9]*' "$log" || true) | awk '{print $2}' | tail -1)
  corpus=$(ls "$build/corpus/$target" | wc -l)
  findings=$(ls "$build/findings" | grep -cE "^$target-(crash|leak|timeout|oom)-" || true)
  if [ -z "$execs" ] || [ "$findings" -gt 0 ]; then
    status=1
  fi
  printf '%-34s %12s %8s %8s %9s\n' "$target" "${execs:-failed}" "${edges:--}" "$corpus" "$findings"
done
if [ "$status" -ne 0 ]; then
  echo "fuzzing found something: see $build/findings/ and $build/logs/" >&2
  for f in "$build"/findings/*; do [ -e "$f" ] && echo "  $f" >&2; done
fi
exit "$status"
