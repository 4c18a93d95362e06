#!/usr/bin/env bash
# Runs the SetupNs unit tests inside a namespace joined to a peer, which
# also routes 10.N.99.0/24 and fd00:99:T::/64; d1 is down with 10.N.60.1.
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_test ost_unit_tests
net=10.$NET tag=$TAG

ip -n "$NS_A" link add d1 type veth peer name d1p
ip -n "$NS_A" addr add "$net.60.1/24" dev d1
in_ns "$NS_A" sysctl -qw net.ipv4.ip_nonlocal_bind=1	# bind while down
ip -n "$NS_A" route add "$net.99.0/24" via "$IP4_B"
ip -n "$NS_A" -6 route add "fd00:99:$tag::/64" via "$IP6_B"
for i in $(seq 60); do	# link-local addresses wait for duplicate detection
  [ -z "$(ip -n "$NS_A" -6 addr show tentative)$(ip -n "$NS_B" -6 addr show tentative)" ] && break
  sleep 0.1
done
PEER_LL=$(ip -n "$NS_B" -6 -o addr show dev "$IF_B" scope link | awk '{print $4}')
PEER_LL=${PEER_LL%/*}
ip -n "$NS_A" -6 neigh replace "$PEER_LL" lladdr "$MAC_B" dev "$IF_A" nud permanent

out=$(in_ns "$NS_A" env OST_SU_IF="$IF_A" OST_SU_MAC="$MAC_A" \
  OST_SU_SELF4="$IP4_A" OST_SU_SELF6="$IP6_A" OST_SU_PEER4="$IP4_B" \
  OST_SU_PEER6="$IP6_B" OST_SU_PEER_MAC="$MAC_B" OST_SU_PEER_LL="$PEER_LL" \
  OST_SU_REMOTE4="$net.99.1" OST_SU_REMOTE6="fd00:99:$tag::1" \
  OST_SU_DOWN4="$net.60.1" \
  "$PROG" --gtest_filter='SetupNs.*' 2>&1) || { echo "$out"; fail "SetupNs"; }
echo "$out"
! grep -q '^\[  SKIPPED \]' <<<"$out" || fail "a namespace test skipped itself"
echo "setup: passed"
