#!/usr/bin/env bash
# Runs the ResolveNs unit tests in host namespace H joined to router R:
#   h0 10.201.1.1/24 (+ .5 labelled h0:1), fd00:201:1::1 and ::1b/64,
#      fe80::99; h1 link-local only (+ fe80::11, fe80::99)
#   10.201.2.0/24 and fd00:201:2::/64 via the router (r0 .254, ::fe)
#   static neighbours 10.201.1.2 and fd00:201:1::2 that nobody owns
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_start
BIN=$OSTREL_BUILD/tests/ost_unit_tests
[ -x "$BIN" ] || fail "no $BIN"
STATIC_MAC=02:00:00:00:01:02
netns_add H; H=$NETNS_NEW
netns_add R; R=$NETNS_NEW
for ns in "$H" "$R"; do
  in_ns "$ns" sysctl -qw net.ipv6.conf.all.accept_dad=0 net.ipv6.conf.default.accept_dad=0
done
ip -n "$H" link add h0 type veth peer name r0 netns "$R"
ip -n "$H" link add h1 type veth peer name r1 netns "$R"
ip -n "$R" addr add 10.201.1.254/24 dev r0
ip -n "$R" addr add fd00:201:1::fe/64 dev r0
for a in 10.201.1.1/24 fd00:201:1::1/64 fd00:201:1::1b/64 fe80::99/64; do
  ip -n "$H" addr add $a dev h0
done
ip -n "$H" addr add 10.201.1.5/24 dev h0 label h0:1
for a in fe80::11/64 fe80::99/64; do ip -n "$H" addr add $a dev h1; done
for l in r0 r1; do ip -n "$R" link set $l up; done
for l in h0 h1; do ip -n "$H" link set $l up; done
ip -n "$H" route add 10.201.2.0/24 via 10.201.1.254
ip -n "$H" -6 route add fd00:201:2::/64 via fd00:201:1::fe
ip -n "$H" neigh add 10.201.1.2 lladdr $STATIC_MAC dev h0 nud permanent
ip -n "$H" -6 neigh add fd00:201:1::2 lladdr $STATIC_MAC dev h0 nud permanent
ip -n "$H" neigh flush dev h0	# the router must be unknown at first
mac() { ip -n "$1" -br link show "$2" | awk '{print $3}'; }

out=$(in_ns "$H" env OST_RT_IF=h0 OST_RT_IF2=h1 OST_RT_MAC="$(mac "$H" h0)" \
  OST_RT_ROUTER_MAC="$(mac "$R" r0)" OST_RT_STATIC_MAC=$STATIC_MAC \
  OST_RT_SELF4=10.201.1.1 OST_RT_ALIAS4=10.201.1.5 \
  OST_RT_ROUTER4=10.201.1.254 OST_RT_STATIC4=10.201.1.2 \
  OST_RT_SILENT4=10.201.1.77 OST_RT_REMOTE4=10.201.2.1 \
  OST_RT_NOROUTE4=10.203.0.1 OST_RT_SELF6=fd00:201:1::1 \
  OST_RT_ROUTER6=fd00:201:1::fe OST_RT_STATIC6=fd00:201:1::2 \
  OST_RT_SILENT6=fd00:201:1::77 OST_RT_REMOTE6=fd00:201:2::1 \
  OST_RT_NOROUTE6=fd00:203::1 OST_RT_SHARED_LL=fe80::99 \
  "$BIN" --gtest_filter='ResolveNs.*' 2>&1) || { echo "$out"; fail "ResolveNs"; }
echo "$out"
! grep -q '^\[  SKIPPED \]' <<<"$out" || fail "a namespace test skipped itself"
echo "resolve: passed"
