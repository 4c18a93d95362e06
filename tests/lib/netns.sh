# The harness of the namespaced shell tests (source it, call netns_start or
# netns_test).  Namespaces are named ostrel-t<pid>.<start>-<label> after the
# owning shell; the EXIT trap (also on INT, TERM, HUP) kills and deletes all
# the run made; the next start sweeps what runs whose owner is gone left.
# Exit code 77: skipped, not root.

OSTREL_BUILD=${OSTREL_BUILD:-$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)/build}
OSTREL_LIB=$OSTREL_BUILD/lib/ostrel.so.1

# Not a PATH wrapper (pyenv shims exec, and exec'd programs lose the preload).
PYTHON3=/usr/bin/python3

NETNS_PREFIX=ostrel-t
NETNS_LIST=()
NETNS_PIDS=()

fail() { echo "FAIL: $*" >&2; exit 1; }

# netns_owner_id PID: "PID.START" while PID runs, nothing once it is gone.
netns_owner_id() {
  local stat
  stat=$(cat "/proc/$1/stat" 2>/dev/null) || return 0
  stat=${stat##*) }	# the command name may hold spaces
  set -- $1 $stat	# field 22 of the file, the start time, is now ${21}
  echo "$1.${21}"
}

# netns_remove NS: kills whatever runs in NS, then deletes it.
netns_remove() {
  ip netns pids "$1" 2>/dev/null | xargs -r kill -9 2>/dev/null || true
  ip netns del "$1" 2>/dev/null || true
}

# netns_sweep: removes what runs killed before their EXIT trap left.
netns_sweep() {
  local ns d re='^'$NETNS_PREFIX'([0-9]+)\.([0-9]+)[-.]'
  for ns in $(ip netns list 2>/dev/null | awk '{print $1}') /tmp/$NETNS_PREFIX*; do
    [[ ${ns#/tmp/} =~ $re ]] || continue
    [ "$(netns_owner_id "${BASH_REMATCH[1]}")" = "${BASH_REMATCH[1]}.${BASH_REMATCH[2]}" ] &&
      continue
    case $ns in /tmp/*) rm -rf "$ns" ;; *) netns_remove "$ns" ;; esac
  done
}

netns_cleanup() {
  local ns
  set +e	# a test's errexit must not cut the clean-up short
  trap - INT TERM HUP
  kill -9 "${NETNS_PIDS[@]}" $(jobs -p) 2>/dev/null
  for ns in "${NETNS_LIST[@]}"; do netns_remove "$ns"; done
  wait 2>/dev/null
  rm -rf "$NETNS_TMP"
  return 0
}

# netns_start: skips the test (exit 77) unless root; sweeps; arms the trap.
netns_start() {
  if [ "$(id -u)" -ne 0 ]; then
    echo "skipped: needs root for network namespaces"
    exit 77
  fi
  NETNS_OWNER=$(netns_owner_id $$)
  netns_sweep
  NETNS_TMP=$(mktemp -d "/tmp/$NETNS_PREFIX$NETNS_OWNER.XXXXXX")
  trap netns_cleanup EXIT
  trap 'exit 129' HUP
  trap 'exit 130' INT
  trap 'exit 143' TERM
}

# netns_test [TOOL]: netns_start, then netns_pair; TOOL, a program built
# under tests/, must exist: its path is in PROG.
netns_test() {
  netns_start
  PROG=$OSTREL_BUILD/tests/${1:-}
  [ -z "${1:-}" ] || [ -x "$PROG" ] || fail "no $PROG"
  netns_pair
}

# netns_add LABEL: a new namespace with lo up, removed at exit; its name
# is in NETNS_NEW.
netns_add() {
  NETNS_NEW=$NETNS_PREFIX$NETNS_OWNER-$1
  ip netns add "$NETNS_NEW" || fail "cannot create namespace $NETNS_NEW"
  NETNS_LIST+=("$NETNS_NEW")
  ip -n "$NETNS_NEW" link set lo up
}

# netns_pair: namespaces A and B joined by one veth pair (one queue each
# way: AF_XDP binds queue 0), IPv4 and IPv6, static neighbours.  Sets NS_,
# IF_, IP4_, IP6_, MAC_ A and B, and NET and TAG for further private
# subnets (10.NET.x.0/24, fd00:x:TAG::/64).
netns_pair() {
  TAG=$(printf '%x' $((RANDOM % 0xf000 + 0x1000)))	# no leading zero: as ip prints it
  NET=$((RANDOM % 200 + 20))
  netns_add A; NS_A=$NETNS_NEW
  netns_add B; NS_B=$NETNS_NEW
  IF_A=va$TAG IF_B=vb$TAG
  IP4_A=10.$NET.$((RANDOM % 250)).1 IP4_B=${IP4_A%.1}.2
  IP6_A=fd00:0:$TAG::1 IP6_B=fd00:0:$TAG::2
  ip link add "$IF_A" netns "$NS_A" numtxqueues 1 numrxqueues 1 type veth \
    peer name "$IF_B" netns "$NS_B" numtxqueues 1 numrxqueues 1 ||
    fail "cannot create a veth pair"
  ip -n "$NS_A" addr add "$IP4_A/24" dev "$IF_A"
  ip -n "$NS_B" addr add "$IP4_B/24" dev "$IF_B"
  ip -n "$NS_A" addr add "$IP6_A/64" dev "$IF_A" nodad
  ip -n "$NS_B" addr add "$IP6_B/64" dev "$IF_B" nodad
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
preloaded() { local ns=$1; shift; ip netns exec "$ns" env LD_PRELOAD="$OSTREL_LIB" "$@"; }

# bg NS CMD...: start CMD in NS in the background (pid in BG_PID); killed at exit.
bg() { local ns=$1; shift; ip netns exec "$ns" "$@" & BG_PID=$!; NETNS_PIDS+=($BG_PID); }

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

# running PID: PID runs (an ended child not yet waited for does not).
running() {
  local st
  st=$(cat "/proc/$1/stat" 2>/dev/null) || return 1
  st=${st##*) }
  [ "${st%% *}" != Z ]
}

# wait_line FILE PID WORD: until FILE has a line starting with WORD; fails
# (status 1) at once if PID ends first, or after 5 s.
wait_line() {
  local i
  for i in $(seq 100); do
    grep -q "^$3" "$1" 2>/dev/null && return 0
    running "$2" || return 1
    sleep 0.05
  done
  return 1
}

# udp_counter NS FIELD...: the kernel's Udp FIELDs (InDatagrams,
# OutDatagrams, InErrors, ...) in NS, IPv4 and IPv6, added up.
udp_counter() {
  local ns=$1; shift
  in_ns "$ns" awk -v want=" $* " '
    $1 == "Udp:" && !seen { for (i = 2; i <= NF; i++) name[i] = $i; seen = 1; next }
    $1 == "Udp:" { for (i = 2; i <= NF; i++) if (index(want, " " name[i] " ")) s += $i }
    $1 ~ /^Udp6/ && index(want, " " substr($1, 5) " ") { s += $2 }
    END { print s + 0 }' /proc/net/snmp /proc/net/snmp6
}

# like_kernel LABEL KERNEL_OUTPUT RUN ARGS...: runs "RUN ARGS $OSTREL_LIB"
# (the scenario, preloaded), which must print what the same scenario
# printed on plain sockets, with NS_B's kernel counting none of its
# datagrams: they came from the ring.
like_kernel() {
  local label=$1 kernel=$2 ours in0; shift 2
  in0=$(udp_counter "$NS_B" InDatagrams)
  ours=$("$@" "$OSTREL_LIB")
  [ "$kernel" = "$ours" ] || fail "$label: the kernel said
$kernel
and the preload
$ours"
  [ "$(udp_counter "$NS_B" InDatagrams)" -eq "$in0" ] ||
    fail "$label: $(($(udp_counter "$NS_B" InDatagrams) - in0)) through the kernel"
}

# oracle LABEL RUN ARGS...: "RUN ARGS" on plain sockets, then like_kernel.
oracle() { local label=$1; shift; like_kernel "$label" "$("$@")" "$@"; }

# wait_attached PID: until the preloaded PID holds a frame-access socket
# beside its UDP one (before, datagrams rightly take the kernel), or 5 s.
wait_attached() {
  local i
  for i in $(seq 100); do
    [ "$(find "/proc/$1/fd" -lname 'socket:*' 2>/dev/null | wc -l)" -ge 2 ] &&
      { sleep 0.05; return 0; }
    running "$1" || return 1
    sleep 0.05
  done
  return 1
}

# fed CMD DST [PRELOAD]: runs CMD (words) with "DST PORT" in NS_B,
# preloaded when PRELOAD is given, and prints its output; each time it
# writes "pair" or "one" on stderr, NS_A's kernel sends it two datagrams
# (10 bytes of "a", 20 of "b") or the first alone.  "ready" on its stderr
# must come first.
fed() {
  local dst=$2 pre=${3:-} port pid sent=0 ask
  port=$((20000 + RANDOM % 20000))
  bg "$NS_B" env ${pre:+LD_PRELOAD=$pre} $1 "$dst" "$port" \
    >"$NETNS_TMP/out" 2>"$NETNS_TMP/err"
  pid=$BG_PID
  wait_line "$NETNS_TMP/err" "$pid" ready || fail "$1: $(cat "$NETNS_TMP/err")"
  while running "$pid"; do
    ask=$(grep -E '^(pair|one)$' "$NETNS_TMP/err" | sed -n "$((sent + 1))p")
    if [ -n "$ask" ]; then
      sent=$((sent + 1)); sleep 0.05
      in_ns "$NS_A" "$PYTHON3" -c 'import socket, sys
a, p = sys.argv[1], int(sys.argv[2])
s = socket.socket(socket.AF_INET6 if ":" in a else socket.AF_INET, socket.SOCK_DGRAM)
s.sendto(b"a" * 10, (a, p))
if sys.argv[3] == "pair": s.sendto(b"b" * 20, (a, p))' "$dst" "$port" "$ask"
    fi
    sleep 0.02
  done
  wait "$pid" || fail "$1 $dst: $(cat "$NETNS_TMP/err")"
  cat "$NETNS_TMP/out"
}
