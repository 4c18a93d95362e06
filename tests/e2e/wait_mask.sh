#!/usr/bin/env bash
# ppoll and pselect on a bypass socket honour their signal masks exactly
# as on a kernel socket: the same program (wait_mask.c) runs plain and
# preloaded and must print the same, and the preloaded run's datagrams
# come from the ring.
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_start
PROG=$OSTREL_BUILD/tests/wait_mask
netns_pair
export FRIO_BACKEND=${FRIO_BACKEND:-xdp}

run() {
  local pre=${1:-} port pid sent=0
  port=$((20000 + RANDOM % 20000))
  : >"$NETNS_TMP/err"
  bg "$NS_B" env ${pre:+LD_PRELOAD=$pre} "$PROG" "$IP4_B" "$port" \
    >"$NETNS_TMP/out" 2>"$NETNS_TMP/err"
  pid=$BG_PID
  wait_line "$NETNS_TMP/err" "$pid" ready || fail "wait_mask did not start"
  # One datagram each time the program asks for it.
  while running "$pid"; do
    if [ "$(grep -c '^send' "$NETNS_TMP/err")" -gt "$sent" ]; then
      sleep 0.05
      in_ns "$NS_A" "$PYTHON3" -c 'import socket, sys
socket.socket(socket.AF_INET, socket.SOCK_DGRAM).sendto(b"x" * 9, (sys.argv[1], int(sys.argv[2])))' "$IP4_B" "$port"
      sent=$((sent + 1))
    fi
    sleep 0.02
  done
  wait "$pid" || fail "wait_mask failed: $(cat "$NETNS_TMP/err")"
  cat "$NETNS_TMP/out"
}

oracle "ppoll and pselect" run
echo "wait_mask: passed ($FRIO_BACKEND)"
