#!/usr/bin/env bash
# The preload object exports exactly its export list, pulls in no C++
# runtime, and does not link the frame-access library (it is opened at the
# first use).  libfrio.so.1 exports exactly the frio_* API: the in-memory
# double's test hooks (frio_mem_*) belong to libfrio_testing.so only.
set -euo pipefail
lib=${OSTREL_BUILD:?}/lib/ostrel.so.1
map=
for m in "${OSTREL_SRC:?}"/src/ostrel.map "$OSTREL_SRC"/src/*/ostrel.map; do
  [ -f "$m" ] && { map=$m; break; }
done
frio=$OSTREL_BUILD/lib/libfrio.so.1
fail=0

# exports LIB: the functions and data LIB defines for others, sorted.
exports() {
  nm -D --defined-only "$1" | awk '$2 ~ /[TtWiDdBb]/ {print $3}' | sed 's/@.*//' | sort -u
}

want=$(printf '%s\n' frio_open frio_close frio_get_mac_addr frio_setup_rx \
  frio_handle2statid frio_tx_vec frio_rx_get frio_rx_put frio_status2str \
  frio_get_fd frio_rx_copies | sort)
have=$(exports "$frio")
if grep -q '^frio_mem_' <<<"$have"; then
  echo "libfrio.so.1 exports the test double's hooks:" $(grep '^frio_mem_' <<<"$have")
  fail=1
fi
if [ "$want" != "$(grep -v '^frio_mem_' <<<"$have")" ]; then
  echo "libfrio.so.1's export list differs from the frio_* API:"
  diff <(echo "$want") <(grep -v '^frio_mem_' <<<"$have") || true
  fail=1
fi

want=$(sed -n '/global:/,/local:/{/global:\|local:/!p}' "${map:-/dev/null}" |
  tr -s ' ;\t\n' '\n' | sed '/^$/d' | sort)
have=$(nm -D --defined-only "$lib" | awk '$2 ~ /[TtWi]/ {print $3}' |
  sed 's/@.*//' | sort)
if [ -z "$map" ]; then
  echo "no ostrel.map under $OSTREL_SRC/src"
  fail=1
elif [ "$want" != "$have" ]; then
  echo "export list differs from $map:"
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

[ "$fail" -eq 0 ] && echo "ostrel.so.1 and libfrio.so.1: exports as listed, ABI clean"
exit "$fail"
