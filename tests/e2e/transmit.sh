#!/usr/bin/env bash
# A preloaded sender's datagrams reach a kernel receiver byte for byte
# through each backend, on-link and routed through B, with A's OutDatagrams
# still; a failed set-up falls back to the kernel.  A preloaded receiver
# gets a kernel sender's, empty to MTU sized, with B's InDatagrams still.
#   A (sender) ---- B (receiver, router) ---- C (receiver behind B)
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_test udp_send
SEND=$PROG RECV=$(dirname "$0")/udp_recv.py

# C behind B: 10.NET.77.0/24 and fd00:77:TAG::/64.
net=10.$NET tag=$TAG
netns_add C; NS_C=$NETNS_NEW
ip link add "bc$tag" netns "$NS_B" type veth peer name "cb$tag" netns "$NS_C"
ip -n "$NS_B" addr add "$net.77.1/24" dev "bc$tag"
ip -n "$NS_C" addr add "$net.77.2/24" dev "cb$tag"
ip -n "$NS_B" addr add "fd00:77:$tag::1/64" dev "bc$tag" nodad
ip -n "$NS_C" addr add "fd00:77:$tag::2/64" dev "cb$tag" nodad
ip -n "$NS_B" link set "bc$tag" up
ip -n "$NS_C" link set "cb$tag" up
in_ns "$NS_B" sysctl -qw net.ipv4.ip_forward=1 net.ipv6.conf.all.forwarding=1
ip -n "$NS_A" route add "$net.77.0/24" via "$IP4_B"
ip -n "$NS_A" -6 route add "fd00:77:$tag::/64" via "$IP6_B"
ip -n "$NS_C" route add default via "$net.77.1"
ip -n "$NS_C" -6 route add default via "fd00:77:$tag::1"
REMOTE4=$net.77.2 REMOTE6=fd00:77:$tag::2

COUNT=40
# run_case BACKEND CALL NS_RECV DST EXPECT: one sender, one receiver;
# EXPECT is "bypass" (no kernel UDP send in A) or "kernel".
run_case() {
  local backend=$1 call=$2 ns=$3 dst=$4 expect=$5 port out0 out1
  port=$((20000 + RANDOM % 20000))
  bg "$ns" "$PYTHON3" "$RECV" "$dst" "$port" "$COUNT" >"$NETNS_TMP/got" \
    2>"$NETNS_TMP/ready"
  wait_udp_port "$ns" "$port"
  out0=$(udp_counter "$NS_A" OutDatagrams)
  in_ns "$NS_A" env LD_PRELOAD="$OSTREL_LIB" FRIO_BACKEND="$backend" \
    "$SEND" "$call" "$dst" "$port" "$COUNT" >"$NETNS_TMP/sent" ||
    fail "$backend $call $dst: sender failed"
  out1=$(udp_counter "$NS_A" OutDatagrams)
  wait "$BG_PID" || true
  [ "$(wc -l <"$NETNS_TMP/got")" -eq "$COUNT" ] ||
    fail "$backend $call $dst: $(wc -l <"$NETNS_TMP/got") of $COUNT arrived"
  [ "$(sort "$NETNS_TMP/sent")" = "$(sort "$NETNS_TMP/got")" ] || fail "$backend $call $dst: payloads differ"
  { [ "$expect" = bypass ] && [ $((out1 - out0)) -eq 0 ]; } ||
    { [ "$expect" = kernel ] && [ $((out1 - out0)) -ge "$COUNT" ]; } ||
    fail "$backend $call $dst: $((out1 - out0)) datagrams through the kernel, not $expect"
  echo "ok: $backend $call $dst ($expect)"
}

# Every send call with AF_XDP, both families; AF_PACKET takes the same
# frames, one at a time and in a batch.
for c in "sendto $IP4_B" "send $IP6_B" "write $IP4_B" "sendmsg $IP6_B" "sendmmsg $IP4_B" "sendmmsg $IP6_B"; do
  run_case xdp ${c% *} "$NS_B" "${c#* }" bypass
done
run_case xdp sendto "$NS_C" "$REMOTE4" bypass
run_case xdp send "$NS_C" "$REMOTE6" bypass
run_case packet sendto "$NS_B" "$IP4_B" bypass
run_case packet sendmmsg "$NS_B" "$IP6_B" bypass
# A handle that cannot be opened: the set-up falls back, nothing is lost.
run_case nonexistent sendto "$NS_B" "$IP4_B" kernel
run_case nonexistent sendmsg "$NS_B" "$IP6_B" kernel
# recv_case CALL DST [ENV...]: the other way, a kernel sender in A and a
# preloaded udp_recv.py (CALL, ENV) in B: all in order, none through B's
# kernel.  The receive mode changes only blocking receives, the busy phase
# only poll.  (Each call, waits, signals: the differential table.)
recv_case() {
  local call=$1 dst=$2 port in0; shift 2
  port=$((20000 + RANDOM % 20000))
  bg "$NS_B" env LD_PRELOAD="$OSTREL_LIB" FRIO_BACKEND="${FRIO_BACKEND:-xdp}" "$@" \
    "$PYTHON3" "$RECV" "$dst" "$port" "$COUNT" "$call" >"$NETNS_TMP/got" 2>"$NETNS_TMP/ready"
  wait_line "$NETNS_TMP/ready" "$BG_PID" ready || fail "$call $dst: receiver"
  in0=$(udp_counter "$NS_B" InDatagrams)
  in_ns "$NS_A" "$SEND" sendto "$dst" "$port" "$COUNT" >"$NETNS_TMP/sent" || fail "sender"
  wait "$BG_PID" || fail "$call $dst $*: receiver: $(cat "$NETNS_TMP/ready")"
  cmp -s "$NETNS_TMP/sent" "$NETNS_TMP/got" || fail "$call $dst $*: payloads differ"
  [ "$(udp_counter "$NS_B" InDatagrams)" -eq "$in0" ] || fail "$call $dst $*: through the kernel"
  echo "ok: preloaded receiver, $call $dst $*"
}
for dst in "$IP4_B" "$IP6_B"; do recv_case recvmsg "$dst"; done
recv_case recv "$IP4_B" _OSTREL_RECV_MODE=0
recv_case poll "$IP4_B" _OSTREL_POLL_USEC=-1
recv_case poll "$IP6_B" _OSTREL_POLL_USEC=200

# A socket bound to a second address of its interface sends from that
# address, and the replies to it come back to it.
ALIAS=${IP4_A%.1}.5
ip -n "$NS_A" addr add "$ALIAS/24" dev "$IF_A"
port=$((20000 + RANDOM % 20000))
bg "$NS_B" "$PYTHON3" -c '
import socket, sys
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind((sys.argv[1], int(sys.argv[2]))); s.settimeout(5)
for _ in range(3):
    data, peer = s.recvfrom(100); s.sendto(peer[0].encode(), peer)
' "$IP4_B" "$port"
wait_udp_port "$NS_B" "$port"
out0=$(udp_counter "$NS_A" OutDatagrams)
out=$(in_ns "$NS_A" env LD_PRELOAD="$OSTREL_LIB" "$PYTHON3" -c '
import socket, sys
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind((sys.argv[1], 0)); s.settimeout(5)
for _ in range(3):
    s.sendto(b"who am I", (sys.argv[2], int(sys.argv[3])))
    print(s.recv(100).decode())
' "$ALIAS" "$IP4_B" "$port" 2>&1) || fail "bound to $ALIAS: $out"
[ "$out" = "$(printf '%s\n%s\n%s' "$ALIAS" "$ALIAS" "$ALIAS")" ] || fail "bound to $ALIAS: $out"
[ "$(udp_counter "$NS_A" OutDatagrams)" = "$out0" ] || fail "bound to $ALIAS: through the kernel"
echo "ok: source address of a socket bound to $ALIAS"
echo "transmit: passed"
