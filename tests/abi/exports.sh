#!/usr/bin/env bash
# The preload object exports exactly its export list, pulls in no C++
# runtime, and does not link the frame-access library (opened at first
# use).  libfrio.so.1 exports exactly the frio_* API: the in-memory
# double's hooks (frio_mem_*) belong to libfrio_testing.so only.
set -euo pipefail
lib=${OSTREL_BUILD:?}/lib/ostrel.so.1
frio=$OSTREL_BUILD/lib/libfrio.so.1
map=
for m in "${OSTREL_SRC:?}"/src/ostrel.map "$OSTREL_SRC"/src/*/ostrel.map; do
  [ -f "$m" ] && { map=$m; break; }
done
fail=0
bad() { echo "$*"; fail=1; }

want=$(printf '%s\n' frio_open frio_close frio_get_mac_addr frio_setup_rx \
  frio_handle2statid frio_tx_vec frio_rx_get frio_rx_put frio_status2str \
  frio_get_fd frio_rx_copies | sort)
have=$(nm -D --defined-only "$frio" | awk '$2 ~ /[TtWiDdBb]/ {print $3}' | sed 's/@.*//' | sort -u)
! grep -q '^frio_mem_' <<<"$have" ||
  bad "libfrio.so.1 exports the test double's hooks:" $(grep '^frio_mem_' <<<"$have")
[ "$want" = "$(grep -v '^frio_mem_' <<<"$have")" ] ||
  bad "libfrio.so.1's exports differ from the frio_* API:" \
    "$(diff <(echo "$want") <(grep -v '^frio_mem_' <<<"$have"))"

want=$(sed -n '/global:/,/local:/{/global:\|local:/!p}' "${map:-/dev/null}" |
  tr -s ' ;\t\n' '\n' | sed '/^$/d' | sort)
have=$(nm -D --defined-only "$lib" | awk '$2 ~ /[TtWi]/ {print $3}' | sed 's/@.*//' | sort)
if [ -z "$map" ]; then bad "no ostrel.map under $OSTREL_SRC/src"
elif [ "$want" != "$have" ]; then
  bad "export list differs from $map:" "$(diff <(echo "$want") <(echo "$have"))"
fi

! nm -D --undefined-only "$lib" |
  grep -E '__cxa_throw|__gxx_personality|_ZTI|_ZTS|_Znw|_Zdl|__cxa_guard' ||
  bad "C++ runtime symbols leaked into ostrel.so.1"
needed=$(readelf -d "$lib" | awk '/NEEDED/ {print $5}')
! grep -qE 'libstdc\+\+|libfrio' <<<"$needed" || bad "unexpected NEEDED entries: $needed"
readelf -d "$lib" | grep -q 'SONAME.*ostrel.so.1' || bad "SONAME is not ostrel.so.1"
# The initialiser alone runs at load: no C++ global constructors, one
# .init_array entry besides frame_dummy.
! nm "$lib" | grep -q '_GLOBAL__sub_I' || bad "C++ global constructors found"
size=$(readelf -SW "$lib" | awk '$2 == ".init_array" {print $6}')
[ $((16#${size:-0} / 8)) -eq 2 ] || bad "expected one initialiser, .init_array is 0x$size bytes"

[ "$fail" -eq 0 ] && echo "ostrel.so.1 and libfrio.so.1: exports as listed, ABI clean"
exit "$fail"
