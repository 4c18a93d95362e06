#!/usr/bin/env bash
# Soak: preloaded sender and receiver (soak.c), acknowledgement-paced,
# sizes across the MTU, lose nothing and match the count and checksum of a
# kernel-to-kernel run of SOAK_SECONDS.  Both backends.
#   CI:        SOAK_SECONDS=5 (default)
#   long run:  SOAK_SECONDS=60 ctest --test-dir build -R e2e.soak
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_test soak
SECS=${SOAK_SECONDS:-5}

# run LABEL PRELOAD [COUNT]: the receiver's "COUNT SUM" in $got.
run() {
  local label=$1 pre=$2 port t0=$SECONDS in0 pid sent
  shift 2
  port=$((20000 + RANDOM % 20000))
  in0=$(udp_counter "$NS_B" InDatagrams)
  bg "$NS_B" env LD_PRELOAD="$pre" "$PROG" recv "$IP4_B" "$port" \
    >"$NETNS_TMP/got" 2>"$NETNS_TMP/ready"
  pid=$BG_PID
  wait_line "$NETNS_TMP/ready" "$pid" ready || fail "$label: $(cat "$NETNS_TMP/ready")"
  sent=$(in_ns "$NS_A" env LD_PRELOAD="$pre" "$PROG" send "$IP4_B" "$port" \
    "$SECS" "$@" 2>"$NETNS_TMP/send.err") ||
    { wait "$pid" || true; fail "$label: sender: $sent $(cat "$NETNS_TMP/send.err")," \
      "receiver: $(cat "$NETNS_TMP/ready")"; }
  wait "$pid" || fail "$label: receiver: $(cat "$NETNS_TMP/ready")"
  got=$(cat "$NETNS_TMP/got")
  [ "$got" = "$sent" ] || fail "$label: sent $sent, received $got"
  echo "ok: $label: ${got% *} datagrams in $((SECONDS - t0)) s, sum ${got#* }," \
    "$(($(udp_counter "$NS_B" InDatagrams) - in0)) through B's kernel"
}

run kernel ""
kernel=$got
for backend in xdp packet; do
  FRIO_BACKEND=$backend run "$backend" "$OSTREL_LIB" "${kernel% *}"
  [ "$got" = "$kernel" ] || fail "$backend: $got, kernel-to-kernel $kernel"
done
echo "soak: passed"
