# Test beds of network namespaces joined by veth pairs.  Source this file;
# everything it creates is removed by the EXIT trap, also when a test fails.
# Addresses are private to the namespaces: no traffic leaves them.

OSTREL_BUILD=${OSTREL_BUILD:-$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)/build}
OSTREL_LIB=$OSTREL_BUILD/lib/ostrel.so.1

# Debian's interpreter itself: a wrapper script in PATH (pyenv shims) would
# exec it, and the preload rightly leaves exec'd programs alone.
PYTHON3=/usr/bin/python3
[ -x "$PYTHON3" ] || PYTHON3=$(command -v python3)

NETNS_LIST=()
NETNS_PIDS=()
NETNS_TMP=$(mktemp -d /tmp/ostrel-test.XXXXXX)

netns_cleanup() {
  local pid ns
  for pid in "${NETNS_PIDS[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${NETNS_PIDS[@]}"; do wait "$pid" 2>/dev/null || true; done
  # Whatever still runs in our namespaces (a program started through a
  # subshell, a busy-waiting receiver) must not outlive them.
  for ns in "${NETNS_LIST[@]}"; do
    ip netns pids "$ns" 2>/dev/null | xargs -r kill -9 2>/dev/null || true
    ip netns del "$ns" 2>/dev/null || true
  done
  rm -rf "$NETNS_TMP"
}
trap netns_cleanup EXIT

require_root() {
  if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: needs root for network namespaces"
    exit 77
  fi
}

fail() { echo "FAIL: $*" >&2; exit 1; }

# netns_pair: two namespaces A and B joined by one veth pair, IPv4 and IPv6
# (no duplicate address detection), static neighbour entries both ways.
# Sets NS_A NS_B IF_A IF_B IP4_A IP4_B IP6_A IP6_B MAC_A MAC_B.
netns_pair() {
  local tag
  tag=$(printf '%04x' $((RANDOM)))
  NS_A=ostA$tag NS_B=ostB$tag IF_A=va$tag IF_B=vb$tag
  local net=$((RANDOM % 200 + 20))
  IP4_A=10.$net.$((RANDOM % 250)).1 IP4_B=${IP4_A%.1}.2
  IP6_A=fd00:0:$tag::1 IP6_B=fd00:0:$tag::2
  ip netns add "$NS_A" && NETNS_LIST+=("$NS_A")
  ip netns add "$NS_B" && NETNS_LIST+=("$NS_B")
  # One queue each way: AF_XDP binds queue 0, and must see every flow.
  ip link add "$IF_A" netns "$NS_A" numtxqueues 1 numrxqueues 1 type veth \
    peer name "$IF_B" netns "$NS_B" numtxqueues 1 numrxqueues 1
  ip -n "$NS_A" addr add "$IP4_A/24" dev "$IF_A"
  ip -n "$NS_B" addr add "$IP4_B/24" dev "$IF_B"
  ip -n "$NS_A" addr add "$IP6_A/64" dev "$IF_A" nodad
  ip -n "$NS_B" addr add "$IP6_B/64" dev "$IF_B" nodad
  for ns in "$NS_A" "$NS_B"; do ip -n "$ns" link set lo up; done
  ip -n "$NS_A" link set "$IF_A" up
  ip -n "$NS_B" link set "$IF_B" up
  MAC_A=$(ip -n "$NS_A" -br link show "$IF_A" | awk '{print $3}')
  MAC_B=$(ip -n "$NS_B" -br link show "$IF_B" | awk '{print $3}')
  ip -n "$NS_A" neigh replace "$IP4_B" lladdr "$MAC_B" dev "$IF_A" nud permanent
  ip -n "$NS_B" neigh replace "$IP4_A" lladdr "$MAC_A" dev "$IF_B" nud permanent
  ip -n "$NS_A" neigh replace "$IP6_B" lladdr "$MAC_B" dev "$IF_A" nud permanent
  ip -n "$NS_B" neigh replace "$IP6_A" lladdr "$MAC_A" dev "$IF_B" nud permanent
}

# in_ns NS CMD...: run CMD in namespace NS.
in_ns() { local ns=$1; shift; ip netns exec "$ns" "$@"; }

# preloaded NS CMD...: run CMD in NS with ostrel preloaded.
preloaded() {
  local ns=$1; shift
  ip netns exec "$ns" env LD_PRELOAD="$OSTREL_LIB" "$@"
}

# bg NS CMD...: start CMD in NS in the background; killed at exit.
bg() { local ns=$1; shift; ip netns exec "$ns" "$@" & NETNS_PIDS+=($!); }

# wait_udp_port NS PORT: until something in NS is bound to UDP PORT.
wait_udp_port() {
  local hex i
  hex=$(printf ':%04X ' "$2")
  for i in $(seq 100); do
    in_ns "$1" cat /proc/net/udp /proc/net/udp6 | grep -q "$hex" && return 0
    sleep 0.05
  done
  fail "nothing bound to UDP port $2 in $1"
}

# udp_counter NS FIELD: the kernel's Udp FIELD (InDatagrams, OutDatagrams,
# InErrors, ...) in NS, IPv4 and IPv6 added up.
udp_counter() {
  in_ns "$1" awk -v f="$2" '
    $1 == "Udp:" && !seen { for (i = 2; i <= NF; i++) col[$i] = i; seen = 1; next }
    $1 == "Udp:" { v4 = $col[f] }
    $1 == "Udp6" f { v6 = $2 }
    END { print v4 + v6 }' /proc/net/snmp /proc/net/snmp6
}
