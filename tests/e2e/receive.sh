#!/usr/bin/env bash
# A preloaded receiver gets every datagram an unmodified kernel sender
# sends, payloads from empty to the largest the MTU allows, through a
# receive call, poll and select, in both receive modes and with poll's
# busy phase unbounded and bounded, IPv4 and IPv6; the receiver's
# kernel InDatagrams counter shows that none passed through its kernel.
# (Each receive call once, waits, signals and time-outs: the
# differential table.)
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_start
SEND=$OSTREL_BUILD/tests/udp_send
RECV=$(dirname "$0")/udp_recv.py
netns_pair
export FRIO_BACKEND=${FRIO_BACKEND:-xdp}
COUNT=60

# run_case CALL DST [ENV...]: COUNT datagrams from a kernel sender in A,
# received with CALL by a preloaded udp_recv.py; none through B's kernel.
run_case() {
  local call=$1 dst=$2 port in0 pid; shift 2
  port=$((20000 + RANDOM % 20000))
  : >"$NETNS_TMP/ready"
  bg "$NS_B" env LD_PRELOAD="$OSTREL_LIB" "$@" "$PYTHON3" "$RECV" \
    "$dst" "$port" "$COUNT" "$call" >"$NETNS_TMP/got" 2>"$NETNS_TMP/ready"
  pid=$BG_PID
  # "ready" follows bind, and the socket is on the bypass once bind returns.
  wait_line "$NETNS_TMP/ready" "$pid" ready || fail "$call $dst: receiver"
  in0=$(udp_counter "$NS_B" InDatagrams)
  in_ns "$NS_A" "$SEND" sendto "$dst" "$port" "$COUNT" >"$NETNS_TMP/sent" || fail "sender"
  wait "$pid" || fail "$call $dst $*: receiver failed: $(cat "$NETNS_TMP/ready")"
  cmp -s "$NETNS_TMP/sent" "$NETNS_TMP/got" || fail "$call $dst $*: payloads differ"
  in0=$(($(udp_counter "$NS_B" InDatagrams) - in0))
  [ $in0 -eq 0 ] || fail "$call $dst $*: $in0 through the kernel"
  echo "ok: $call $dst $*"
}

# The receive mode changes only blocking receives, the busy phase only
# poll (select always spins).
for call in recvmsg poll select; do run_case "$call" "$IP4_B"; done
run_case recvmsg "$IP6_B"
run_case recv "$IP4_B" _OSTREL_RECV_MODE=0
run_case poll "$IP4_B" _OSTREL_POLL_USEC=-1
run_case poll "$IP6_B" _OSTREL_POLL_USEC=200
echo "receive: passed ($FRIO_BACKEND)"
