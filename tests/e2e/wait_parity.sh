#!/usr/bin/env bash
# Waits and receives whose answer is the kernel socket's or a signal
# handler's: the same program (wait_parity.c) runs plain and preloaded,
# IPv4 and IPv6, and must print the same.  In the ring part every datagram
# comes from the ring; the hand-off part takes sockets off the bypass under
# a waiting receive, so its datagrams end in the kernel socket.
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_start
netns_pair
export FRIO_BACKEND=${FRIO_BACKEND:-xdp}
BIN=$OSTREL_BUILD/tests/wait_parity

for dst in "$IP4_B" "$IP6_B"; do
  oracle "ring $dst" fed "$BIN ring" "$dst"
  grep -q '^bypass 1$' "$NETNS_TMP/err" || fail "ring $dst: not on the bypass"
  export PEER=$IP4_A; [[ $dst == *:* ]] && PEER=$IP6_A
  kernel=$(fed "$BIN handoff" "$dst")
  ours=$(fed "$BIN handoff" "$dst" "$OSTREL_LIB")
  grep -q '^bypass 9$' "$NETNS_TMP/err" ||
    fail "handoff $dst: $(grep bypass "$NETNS_TMP/err") of 9 on the bypass
$(cat "$NETNS_TMP/err")"
  [ "$kernel" = "$ours" ] || fail "handoff $dst: the kernel said
$kernel
and the preload
$ours"
  echo "ok: $dst"
  echo "$ours" | sed 's/^/  /'
done
echo "wait_parity: passed ($FRIO_BACKEND)"
