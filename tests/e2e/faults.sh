#!/usr/bin/env bash
# Faults under load: A (preloaded) and B (plain) stream datagrams at each
# other (faults_peer.py) while B's MAC changes, A's route moves to a second
# link and back, A's link bounces and the MTU shrinks; then A is killed -9
# and a new process takes its port; first, A sends with B unresolved.
# Each datagram carries its phase: a fault's phase may lose (as the kernel
# does), the settled phase after it must lose and duplicate nothing.  Plain
# sockets run first under the same checks; on the bypass A's kernel sends
# none of the settled phases on the first link, all on the second.
#
#   A IF_A 10.N.x.1 ---- B IF_B 10.N.x.2, service address SVC on B's lo
#   A a2   10.N.251.1 -- B b2   10.N.251.2
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_test
PEER=$(dirname "$0")/faults_peer.py
net=10.$NET
SVC=$net.250.1
ip -n "$NS_B" addr add "$SVC/32" dev lo
ip link add a2$TAG netns "$NS_A" type veth peer name b2$TAG netns "$NS_B"
IF_A2=a2$TAG IF_B2=b2$TAG
ip -n "$NS_A" addr add "$net.251.1/24" dev "$IF_A2"
ip -n "$NS_B" addr add "$net.251.2/24" dev "$IF_B2"
ip -n "$NS_A" link set "$IF_A2" up
ip -n "$NS_B" link set "$IF_B2" up
for ns in "$NS_A" "$NS_B"; do	# replies may come in by the other link
  in_ns "$ns" sysctl -qw net.ipv4.conf.all.rp_filter=0 \
    net.ipv4.conf.default.rp_filter=0
  for i in $(in_ns "$ns" ls /proc/sys/net/ipv4/conf); do
    in_ns "$ns" sysctl -qw "net.ipv4.conf.$i.rp_filter=0"
  done
done
ip -n "$NS_A" route add "$SVC/32" via "$IP4_B" dev "$IF_A"
MAC_B0=$MAC_B
PHASE=$NETNS_TMP/phase

# set_phase N: the phase every later datagram carries.
set_phase() { echo "$1" >"$PHASE.new"; mv "$PHASE.new" "$PHASE"; }

# settled N SECS: phase N, a settled one, for SECS; A's kernel sends
# counted for it in OUT[N].
declare -A OUT
settled() {
  local o0
  o0=$(udp_counter "$NS_A" OutDatagrams)
  set_phase "$1"
  sleep "$2"
  OUT[$1]=$(($(udp_counter "$NS_A" OutDatagrams) - o0))
}

# fault N CMD...: phase N, unsettled: what is in flight lands, then CMD,
# then time to settle.
fault() {
  local n=$1; shift
  set_phase "$n"
  sleep 0.2
  "$@"
  sleep 0.8
}

mac_change() {
  ip -n "$NS_B" link set "$IF_B" address "$1"
  # As A's kernel learns it from B's next ARP (made deterministic).
  ip -n "$NS_A" neigh replace "$IP4_B" lladdr "$1" dev "$IF_A" nud reachable
}
route_via() { ip -n "$NS_A" route replace "$SVC/32" via "$1" dev "$2"; }
bounce() {
  ip -n "$NS_A" link set "$IF_A" down
  sleep 0.3
  ip -n "$NS_A" link set "$IF_A" up
  # The kernel drops routes through a link that goes down.
  ip -n "$NS_A" route replace "$SVC/32" via "$IP4_B" dev "$IF_A"
}
mtu() {
  ip -n "$NS_A" link set "$IF_A" mtu "$1"
  ip -n "$NS_B" link set "$IF_B" mtu "$1"
}

# check LABEL A_OUT B_OUT PHASE...: for each settled PHASE, what one side
# sent the other got, once.
check() {
  local label=$1 a=$2 b=$3 p as ag ad bs bg_ bd; shift 3
  for p in "$@"; do
    read -r as ag ad < <(awk -v p="$p" '$1 == p { print $2, $3, $4 }' "$a") || true
    read -r bs bg_ bd < <(awk -v p="$p" '$1 == p { print $2, $3, $4 }' "$b") || true
    [ -n "$as" ] && [ -n "$bs" ] || fail "$label: phase $p missing: $(cat "$a") / $(cat "$b")"
    [ "$as" -gt 100 ] && [ "$bs" -gt 100 ] || fail "$label: phase $p: only $as and $bs sent"
    [ "$as" -eq "$bg_" ] || fail "$label: phase $p: A sent $as, B got $bg_"
    [ "$bs" -eq "$ag" ] || fail "$label: phase $p: B sent $bs, A got $ag"
    [ "$ad" -eq 0 ] && [ "$bd" -eq 0 ] || fail "$label: phase $p: duplicates $ad $bd"
  done
}

# peer NS OUT PRELOAD SRC DST [QUIET]: faults_peer.py from SRC to DST, both
# on $port, in NS (preloaded when PRELOAD is set), counts in OUT, errors in
# $NETNS_TMP/A.err or B.err; its pid in P once it is ready.
peer() {
  local err=$NETNS_TMP/${1##*-}.err
  bg "$1" env ${3:+LD_PRELOAD=$3} "$PYTHON3" "$PEER" "$4" "$port" "$5" "$port" "$PHASE" \
    ${6:-} >"$2" 2>"$err"
  P=$BG_PID
  wait_line "$err" "$P" ready || fail "$4: $(cat "$err")"
}

# streams MODE: the network faults with A preloaded (bypass) or not.
streams() {
  local mode=$1 pre="" port a b
  [ "$mode" = bypass ] && pre=$OSTREL_LIB
  port=$((20000 + RANDOM % 20000))
  set_phase 99	# starting up: B sends before A has its port
  peer "$NS_B" "$NETNS_TMP/b.$mode" "" "$SVC" "$IP4_A"; b=$P
  peer "$NS_A" "$NETNS_TMP/a.$mode" "$pre" "$IP4_A" "$SVC"; a=$P
  [ -z "$pre" ] || wait_attached "$a" || fail "A never attached"
  sleep 0.3
  settled 0 1
  fault 1 mac_change 02:00:00:00:$((RANDOM % 90 + 10)):01
  settled 2 1
  fault 3 route_via "$net.251.2" "$IF_A2"
  settled 4 1
  fault 5 route_via "$IP4_B" "$IF_A"
  settled 6 1
  fault 7 bounce
  settled 8 1
  fault 9 mtu 1280
  settled 10 1
  set_phase -1
  wait "$a" || fail "$mode: A: $(cat "$NETNS_TMP/A.err")"
  wait "$b" || fail "$mode: B: $(cat "$NETNS_TMP/B.err")"
  check "$mode" "$NETNS_TMP/a.$mode" "$NETNS_TMP/b.$mode" 0 2 4 6 8 10
  if [ "$mode" = bypass ]; then
    local p
    for p in 0 2 6 8; do
      [ "${OUT[$p]}" -eq 0 ] || fail "bypass: phase $p: ${OUT[$p]} of A's datagrams through its kernel"
    done
    # The handle is on the first link: the kernel carries the second's.
    [ "${OUT[4]}" -gt 100 ] || fail "bypass: phase 4: ${OUT[4]} through the kernel"
  fi
  echo "ok: $mode: $(awk '{ s += $2 } END { print s }' "$NETNS_TMP/a.$mode") sent by A," \
    "$(awk '{ s += $2 } END { print s }' "$NETNS_TMP/b.$mode") by B; A's kernel sent" \
    "${OUT[0]} ${OUT[2]} ${OUT[4]} ${OUT[6]} ${OUT[8]} ${OUT[10]} in settled phases"
  # Back to the start for the next run.
  mtu 1500
  mac_change "$MAC_B0"
  ip -n "$NS_A" neigh replace "$IP4_B" lladdr "$MAC_B0" dev "$IF_A" nud permanent
}

# restart MODE: A is killed with kill -9 while B keeps sending to its
# port; a new A on the same port gets all that B sends once it is up.
restart() {
  local mode=$1 pre="" port a b
  [ "$mode" = bypass ] && pre=$OSTREL_LIB
  port=$((20000 + RANDOM % 20000))
  set_phase 99	# starting up: B sends before A has its port
  peer "$NS_B" "$NETNS_TMP/rb.$mode" "" "$IP4_B" "$IP4_A"; b=$P
  peer "$NS_A" /dev/null "$pre" "$IP4_A" "$IP4_B"; a=$P
  [ -z "$pre" ] || wait_attached "$a" || fail "A never attached"
  sleep 0.5
  set_phase 1
  kill -9 "$a"
  wait "$a" 2>/dev/null || true
  sleep 0.3
  peer "$NS_A" "$NETNS_TMP/ra.$mode" "$pre" "$IP4_A" "$IP4_B"; a=$P
  [ -z "$pre" ] || wait_attached "$a" || fail "new A never attached"
  sleep 0.3
  settled 2 1
  set_phase -1
  wait "$a" || fail "$mode: new A: $(cat "$NETNS_TMP/A.err")"
  wait "$b" || fail "$mode: B: $(cat "$NETNS_TMP/B.err")"
  check "$mode restart" "$NETNS_TMP/ra.$mode" "$NETNS_TMP/rb.$mode" 2
  [ "$mode" = kernel ] || [ "${OUT[2]}" -eq 0 ] ||
    fail "bypass restart: ${OUT[2]} of A's datagrams through its kernel"
  echo "ok: $mode: after kill -9, the new process got all" \
    "$(awk '$1 == 2 { print $2 }' "$NETNS_TMP/rb.$mode") that B sent"
}

# tcp_in NS: TCP segments NS has received.
tcp_in() { in_ns "$1" awk '$1 == "Tcp:" && $2 ~ /^[0-9]/ { print $11 }' /proc/net/snmp; }

# unresolved MODE: A starts sending while its neighbour table has no
# entry for B.  The kernel resolves B as it delivers the first datagrams
# (nothing is lost from the very first, nothing else is sent to B: no
# TCP); on the bypass, once the entry is there, A's kernel sends nothing.
unresolved() {
  local mode=$1 pre="" port a b t0 o0 as bg_
  [ "$mode" = bypass ] && pre=$OSTREL_LIB
  port=$((20000 + RANDOM % 20000))
  ip -n "$NS_A" neigh del "$IP4_B" dev "$IF_A"
  set_phase 99
  # B keeps quiet at first: its datagrams would have A's kernel resolve it.
  peer "$NS_B" "$NETNS_TMP/ub.$mode" "" "$IP4_B" "$IP4_A" 99; b=$P
  t0=$(tcp_in "$NS_B") o0=$(udp_counter "$NS_A" OutDatagrams)
  peer "$NS_A" "$NETNS_TMP/ua.$mode" "$pre" "$IP4_A" "$IP4_B"; a=$P
  sleep 0.5
  o0=$(($(udp_counter "$NS_A" OutDatagrams) - o0))
  settled 0 1
  set_phase -1
  wait "$a" || fail "$mode: A: $(cat "$NETNS_TMP/A.err")"
  wait "$b" || fail "$mode: B: $(cat "$NETNS_TMP/B.err")"
  check "$mode unresolved" "$NETNS_TMP/ua.$mode" "$NETNS_TMP/ub.$mode" 0
  read -r as < <(awk '$1 == 99 { print $2 }' "$NETNS_TMP/ua.$mode") || true
  read -r bg_ < <(awk '$1 == 99 { print $3 }' "$NETNS_TMP/ub.$mode") || true
  [ -n "$(ip -n "$NS_A" neigh show "$IP4_B" dev "$IF_A")" ] ||
    fail "$mode unresolved: A's kernel never resolved B"
  [ "${as:-0}" -gt 0 ] && [ "$as" = "$bg_" ] ||
    fail "$mode unresolved: A sent ${as:-0} from the start, B got ${bg_:-0}"
  [ "$(tcp_in "$NS_B")" = "$t0" ] || fail "$mode unresolved: B got TCP segments"
  if [ "$mode" = bypass ]; then
    [ "$o0" -gt 0 ] || fail "bypass unresolved: the kernel sent none of the first"
    [ "${OUT[0]}" -eq 0 ] || fail "bypass unresolved: ${OUT[0]} through A's kernel once resolved"
  fi
  ip -n "$NS_A" neigh replace "$IP4_B" lladdr "$MAC_B0" dev "$IF_A" nud permanent
  echo "ok: $mode: unresolved neighbour: all $as of the first phase arrived," \
    "$o0 through A's kernel, then ${OUT[0]}"
}

for mode in kernel bypass; do
  unresolved "$mode"
  streams "$mode"
  restart "$mode"
done
echo "faults: passed"
