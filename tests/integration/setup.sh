#!/usr/bin/env bash
# bind, connect and the first sendto against the kernel's real tables: runs
# the SetupNs unit tests inside a namespace joined to a peer, with the
# in-memory frame double standing in for the interfaces.
#
#   A: va 10.N.M.1/24 fd00:0:T::1/64, d0 up 10.N.50.1/24, d1 down 10.N.60.1/24 (veths)
#      10.N.99.0/24 and fd00:99:T::/64 via the peer
#   B: vb 10.N.M.2/24 fd00:0:T::2/64, its link-local address
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
require_root
BIN=$OSTREL_BUILD/tests/ost_unit_tests
[ -x "$BIN" ] || fail "no $BIN"
netns_pair
net=${IP4_A%.*.1}
tag=${IP6_A#fd00:0:}; tag=${tag%%::1}

ip -n "$NS_A" link add d0 type veth peer name d0p
ip -n "$NS_A" link set d0p up
ip -n "$NS_A" addr add "$net.50.1/24" dev d0
ip -n "$NS_A" link set d0 up
ip -n "$NS_A" link add d1 type veth peer name d1p
ip -n "$NS_A" addr add "$net.60.1/24" dev d1
# Lets the kernel bind an address of an interface that is down.
in_ns "$NS_A" sysctl -qw net.ipv4.ip_nonlocal_bind=1
ip -n "$NS_A" route add "$net.99.0/24" via "$IP4_B"
ip -n "$NS_A" -6 route add "fd00:99:$tag::/64" via "$IP6_B"

# Link-local addresses are usable once duplicate detection has finished.
for i in $(seq 60); do
  [ -z "$(ip -n "$NS_A" -6 addr show tentative)$(ip -n "$NS_B" -6 addr show tentative)" ] && break
  sleep 0.1
done
PEER_LL=$(ip -n "$NS_B" -6 -o addr show dev "$IF_B" scope link | awk '{print $4}')
PEER_LL=${PEER_LL%/*}
ip -n "$NS_A" -6 neigh replace "$PEER_LL" lladdr "$MAC_B" dev "$IF_A" nud permanent

out=$(in_ns "$NS_A" env \
  OST_SU_IF="$IF_A" OST_SU_MAC="$MAC_A" \
  OST_SU_IF2=d0 OST_SU_MAC2="$(ip -n "$NS_A" -br link show d0 | awk '{print $3}')" \
  OST_SU_SELF4="$IP4_A" OST_SU_SELF6="$IP6_A" \
  OST_SU_PEER4="$IP4_B" OST_SU_PEER6="$IP6_B" OST_SU_PEER_MAC="$MAC_B" \
  OST_SU_PEER_LL="$PEER_LL" \
  OST_SU_REMOTE4="$net.99.1" OST_SU_REMOTE6="fd00:99:$tag::1" \
  OST_SU_OTHER4="$net.50.2" OST_SU_DOWN4="$net.60.1" \
  "$BIN" --gtest_filter='SetupNs.*' 2>&1) || { echo "$out"; fail "SetupNs"; }
echo "$out"
if grep -q '^\[  SKIPPED \]' <<<"$out"; then fail "a namespace test skipped itself"; fi
echo "setup: passed"
