#!/bin/bash
# Path resolution against a real kernel: runs the ResolveNs unit tests
# inside a host namespace joined to a router namespace.
#
#   host  h0 10.201.1.1/24 (+ 10.201.1.5 as h0:1), fd00:201:1::1 and ::1b/64,
#         its own link-local and fe80::99
#         h1 link-local only (its own, fe80::11, fe80::99)
#         h2 down, fd00:201:3::1/64
#         10.201.2.0/24 and fd00:201:2::/64 via the router
#         static neighbours 10.201.1.2 and fd00:201:1::2 (nobody owns them)
#   router r0 10.201.1.254/24, fd00:201:1::fe/64; r1 10.201.2.254/24;
#         r2 the other end of h2
#
# Needs root; exits 77 (skipped) without it.
set -u

[ "$(id -u)" -eq 0 ] || { echo "resolve: skipped, not root"; exit 77; }
BIN=${OSTREL_BUILD:-build}/tests/ost_unit_tests
[ -x "$BIN" ] || { echo "resolve: no $BIN"; exit 1; }

H=ost-rh-$$-$RANDOM
R=ost-rr-$$-$RANDOM
STATIC_MAC=02:00:00:00:01:02

cleanup() {
	ip netns del "$H" 2>/dev/null
	ip netns del "$R" 2>/dev/null
}
trap cleanup EXIT
trap 'exit 1' INT TERM

if ! ip netns add "$H" 2>/dev/null; then
	echo "resolve: skipped, cannot create network namespaces"
	exit 77
fi
ip netns add "$R" || exit 1

set -e
for ns in "$H" "$R"; do
	# No duplicate address detection: addresses are usable at once.
	ip netns exec "$ns" sysctl -qw net.ipv6.conf.all.accept_dad=0
	ip netns exec "$ns" sysctl -qw net.ipv6.conf.default.accept_dad=0
	ip -n "$ns" link set lo up
done

ip -n "$H" link add h0 type veth peer name r0 netns "$R"
ip -n "$H" link add h1 type veth peer name r1 netns "$R"
ip -n "$H" link add h2 type veth peer name r2 netns "$R"

ip -n "$R" addr add 10.201.1.254/24 dev r0
ip -n "$R" addr add fd00:201:1::fe/64 dev r0 nodad
ip -n "$R" addr add 10.201.2.254/24 dev r1
ip -n "$R" link set r0 up
ip -n "$R" link set r1 up

ip -n "$H" addr add 10.201.1.1/24 dev h0
ip -n "$H" addr add 10.201.1.5/24 dev h0 label h0:1
ip -n "$H" addr add fd00:201:1::1/64 dev h0 nodad
ip -n "$H" addr add fd00:201:1::1b/64 dev h0 nodad
ip -n "$H" addr add fe80::99/64 dev h0 nodad
ip -n "$H" link set h0 up
ip -n "$H" addr add fe80::11/64 dev h1 nodad
ip -n "$H" addr add fe80::99/64 dev h1 nodad
ip -n "$H" link set h1 up
# h2 stays down, its address with it.
ip -n "$H" addr add fd00:201:3::1/64 dev h2 nodad

ip -n "$H" route add 10.201.2.0/24 via 10.201.1.254
ip -n "$H" -6 route add fd00:201:2::/64 via fd00:201:1::fe
ip -n "$H" neigh add 10.201.1.2 lladdr $STATIC_MAC dev h0 nud permanent
ip -n "$H" -6 neigh add fd00:201:1::2 lladdr $STATIC_MAC dev h0 nud permanent
# Nothing may know the router yet: one test resolves it.
ip -n "$H" neigh flush dev h0
set +e

mac_of() {
	ip -n "$1" -o link show "$2" | sed -n 's/.*link\/ether \([0-9a-f:]*\).*/\1/p'
}

out=$(ip netns exec "$H" env \
	OST_RT_IF=h0 OST_RT_IF2=h1 \
	OST_RT_MAC="$(mac_of "$H" h0)" \
	OST_RT_ROUTER_MAC="$(mac_of "$R" r0)" \
	OST_RT_STATIC_MAC=$STATIC_MAC \
	OST_RT_SELF4=10.201.1.1 OST_RT_ALIAS4=10.201.1.5 \
	OST_RT_ROUTER4=10.201.1.254 OST_RT_STATIC4=10.201.1.2 \
	OST_RT_SILENT4=10.201.1.77 OST_RT_REMOTE4=10.201.2.1 \
	OST_RT_OFFLINK4=10.201.2.254 \
	OST_RT_NOROUTE4=10.203.0.1 \
	OST_RT_SELF6=fd00:201:1::1 OST_RT_ROUTER6=fd00:201:1::fe \
	OST_RT_STATIC6=fd00:201:1::2 OST_RT_SILENT6=fd00:201:1::77 \
	OST_RT_REMOTE6=fd00:201:2::1 OST_RT_NOROUTE6=fd00:203::1 \
	OST_RT_SHARED_LL=fe80::99 OST_RT_DOWN6=fd00:201:3::1 \
	"$BIN" --gtest_filter='ResolveNs.*' 2>&1)
rc=$?
echo "$out"
if [ $rc -ne 0 ]; then
	echo "resolve: FAILED"
	exit 1
fi
if echo "$out" | grep -q '^\[  SKIPPED \]'; then
	echo "resolve: a namespace test skipped itself"
	exit 1
fi
echo "resolve: passed"
exit 0
