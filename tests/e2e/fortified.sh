#!/usr/bin/env bash
# A program built with -D_FORTIFY_SOURCE=2 receives through glibc's checked
# entry points (__poll_chk, __recv_chk, __recvfrom_chk, __read_chk) and
# readv, from a sender that uses writev; both preloaded, IPv4 and IPv6,
# every byte compared, and neither side's kernel counters move.
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_test fortified_recv
RECV=$PROG SEND=$OSTREL_BUILD/tests/udp_send
for f in __poll_chk __recv_chk __recvfrom_chk __read_chk; do
  nm -D "$RECV" | grep -q "$f" || fail "$RECV does not call $f"
done
export FRIO_BACKEND=${FRIO_BACKEND:-xdp}
COUNT=40

for dst in "$IP4_B" "$IP6_B"; do
  port=$((20000 + RANDOM % 20000))
  bg "$NS_B" env LD_PRELOAD="$OSTREL_LIB" "$RECV" "$dst" "$port" "$COUNT" \
    >"$NETNS_TMP/got" 2>"$NETNS_TMP/ready"
  pid=$BG_PID
  wait_line "$NETNS_TMP/ready" "$pid" ready || fail "receiver $dst"
  in0=$(udp_counter "$NS_B" InDatagrams) out0=$(udp_counter "$NS_A" OutDatagrams)
  in_ns "$NS_A" env LD_PRELOAD="$OSTREL_LIB" "$SEND" writev "$dst" "$port" \
    "$COUNT" >"$NETNS_TMP/sent" || fail "sender $dst"
  wait "$pid" || fail "receiver $dst: $(cat "$NETNS_TMP/ready")"
  cmp -s "$NETNS_TMP/sent" "$NETNS_TMP/got" || fail "$dst: payloads differ"
  [ "$(udp_counter "$NS_B" InDatagrams) $(udp_counter "$NS_A" OutDatagrams)" = "$in0 $out0" ] ||
    fail "$dst: through the kernel"
  echo "ok: fortified receive, writev send, $dst"
done
echo "fortified: passed ($FRIO_BACKEND)"
