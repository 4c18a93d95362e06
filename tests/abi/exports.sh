#!/usr/bin/env bash
# The preload object exports exactly its export list, pulls in no C++
# runtime, and does not link the frame-access library (it is opened at the
# first use).
set -euo pipefail
lib=${OSTREL_BUILD:?}/lib/ostrel.so.1
map=${OSTREL_SRC:?}/src/ostrel.map
fail=0

want=$(sed -n '/global:/,/local:/p' "$map" | grep -v -e global: -e local: |
  tr -s ' ;\n' '\n' | grep -v '^$' | sort)
have=$(nm -D --defined-only "$lib" | awk '$2 ~ /[TtWi]/ {print $3}' |
  sed 's/@.*//' | sort)
if [ "$want" != "$have" ]; then
  echo "export list differs from ostrel.map:"
  diff <(echo "$want") <(echo "$have") || true
  fail=1
fi

if nm -D --undefined-only "$lib" |
    grep -E '__cxa_throw|__gxx_personality|_ZTI|_ZTS|_Znw|_Zdl|__cxa_guard'; then
  echo "C++ runtime symbols leaked into ostrel.so.1"
  fail=1
fi

needed=$(readelf -d "$lib" | awk '/NEEDED/ {print $5}')
if grep -qE 'libstdc\+\+|libfrio' <<<"$needed"; then
  echo "unexpected NEEDED entries: $needed"
  fail=1
fi
if ! readelf -d "$lib" | grep -q 'SONAME.*ostrel.so.1'; then
  echo "SONAME is not ostrel.so.1"
  fail=1
fi

# The initialiser is the only code run at load time: no C++ global
# constructors, and one .init_array entry besides the C runtime's own.
if nm "$lib" | grep -q '_GLOBAL__sub_I'; then
  echo "C++ global constructors found"
  fail=1
fi
size=$(readelf -SW "$lib" | awk '$2 == ".init_array" {print $6}')
if [ $(( 16#${size:-0} / 8 )) -ne 2 ]; then
  echo "expected one initialiser besides frame_dummy, .init_array is 0x$size bytes"
  fail=1
fi

[ "$fail" -eq 0 ] && echo "ostrel.so.1: $(wc -l <<<"$have") exports, ABI clean"
exit "$fail"
