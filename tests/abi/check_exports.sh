#!/usr/bin/env bash
# Compares the dynamic symbols of libapp-mgr.so with the APPMGR_API
# declarations of the public headers.
set -euo pipefail
lib=$1
include_dir=$2
fail=0

exported=$(nm -D --defined-only "$lib" | awk '{print $3}' | sed 's/@.*//' | grep -vE '^APPMGR_[0-9]+$' | grep -vE '^__(odr_)?(asan|ubsan|tsan|lsan|sanitizer)' | sort -u)
declared=$(ls "$include_dir"/*.h | grep -v app_mgr_export.h | xargs cat | tr '\n' ' ' | grep -oE 'APPMGR_API[^;{]*[;{]' |
           sed -E 's/\[[^]]*\]//g; s/\([^()]*(\([^()]*\)[^()]*)*\)//g' |
           grep -oE '[A-Za-z_][A-Za-z0-9_]*[[:space:]]*[;{]$' | tr -d ' ;{' | sort -u)

mangled=$(echo "$exported" | grep -E '^_Z' || true)
if [ -n "$mangled" ]; then
  echo "mangled symbols exported:"; echo "$mangled"; fail=1
fi
extra=$(comm -23 <(echo "$exported") <(echo "$declared"))
if [ -n "$extra" ]; then
  echo "exported but not declared with APPMGR_API:"; echo "$extra"; fail=1
fi
missing=$(comm -13 <(echo "$exported") <(echo "$declared"))
if [ -n "$missing" ]; then
  echo "declared with APPMGR_API but not exported:"; echo "$missing"; fail=1
fi
if ! readelf -d "$lib" | grep -q 'SONAME.*libapp-mgr\.so\.'; then
  echo "no SONAME libapp-mgr.so.N"; fail=1
fi
if readelf -d "$lib" | grep 'NEEDED' | grep -qi 'platform'; then
  echo "libapp-mgr.so depends on a platform implementation:"; readelf -d "$lib" | grep NEEDED; fail=1
fi
count=$(echo "$exported" | wc -l)
[ $fail -eq 0 ] && echo "abi ok: $count exported C symbols, all declared"
exit $fail
