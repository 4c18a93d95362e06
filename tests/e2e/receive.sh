#!/usr/bin/env bash
# A preloaded receiver gets every datagram an unmodified kernel sender
# sends, payloads from empty to the largest the MTU allows, through each
# receive call, poll and select, in both receive modes and with poll's
# busy phase off, unbounded and bounded, IPv4 and IPv6; the receiver's
# kernel InDatagrams counter shows that none passed through its kernel.
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
require_root
SEND=$OSTREL_BUILD/tests/udp_send
RECV=$(dirname "$0")/udp_recv.py
[ -x "$SEND" ] || fail "no $SEND"
netns_pair
export FRIO_BACKEND=${FRIO_BACKEND:-xdp}
COUNT=60

# run_case CALL DST [ENV...]
run_case() {
  local call=$1 dst=$2 port in0 in1 pid; shift 2
  port=$((20000 + RANDOM % 20000))
  : >"$NETNS_TMP/ready"
  ip netns exec "$NS_B" env LD_PRELOAD="$OSTREL_LIB" "$@" "$PYTHON3" "$RECV" \
    "$dst" "$port" "$COUNT" "$call" >"$NETNS_TMP/got" 2>"$NETNS_TMP/ready" &
  pid=$!
  NETNS_PIDS+=($pid)
  wait_udp_port "$NS_B" "$port"
  in0=$(udp_counter "$NS_B" InDatagrams)
  in_ns "$NS_A" "$SEND" sendto "$dst" "$port" "$COUNT" >"$NETNS_TMP/sent" ||
    fail "sender to $dst"
  wait "$pid" || fail "$call $dst $*: receiver failed: $(cat "$NETNS_TMP/ready")"
  in1=$(udp_counter "$NS_B" InDatagrams)
  [ "$(wc -l <"$NETNS_TMP/got")" -eq "$COUNT" ] ||
    fail "$call $dst $*: $(wc -l <"$NETNS_TMP/got") of $COUNT arrived"
  cmp -s "$NETNS_TMP/sent" "$NETNS_TMP/got" || fail "$call $dst $*: payloads differ"
  [ $((in1 - in0)) -eq 0 ] || fail "$call $dst $*: $((in1 - in0)) through the kernel"
  echo "ok: $call $dst $*"
}

for dst in "$IP4_B" "$IP6_B"; do
  for call in recv recvfrom recvmsg read poll select; do
    run_case "$call" "$dst"
  done
done
for env in _OSTREL_RECV_MODE=0 _OSTREL_POLL_USEC=-1 _OSTREL_POLL_USEC=200; do
  for call in recv poll select; do
    run_case "$call" "$IP4_B" "$env"
  done
done
echo "receive: passed ($FRIO_BACKEND)"
