#!/usr/bin/env bash
# A preloaded receiver gets what the kernel would from either path: the
# ring, or its kernel socket (fragments, IPv6 destination options, loopback,
# wildcard sockets' second addresses and broadcasts, datagrams queued before
# the bypass); B's InDatagrams moves by the kernel share.  Both backends.
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_test
MIX=$(dirname "$0")/mix.py
B2_4=${IP4_B%.2}.3 B2_6=${IP6_B%2}3 BC4=${IP4_B%.2}.255
ip -n "$NS_B" addr add "$B2_4/24" dev "$IF_B"
ip -n "$NS_B" addr add "$B2_6/64" dev "$IF_B" nodad

# run_case NAME BIND PEER WAIT KERNEL LEG...; a LEG is NS,DST,SIZE,COUNT,OPT
# sent by a plain program in namespace a or b, all legs at once.
run_case() {
  local name=$1 bind=$2 peer=$3 wait=$4 kern=$5 total=0 base=0 port in0 in1 rpid
  local leg ns dst size n opt pids=() p
  shift 5
  for leg; do IFS=, read -r ns dst size n opt <<<"$leg"; total=$((total + n)); done
  port=$((20000 + RANDOM % 20000))
  in0=$(udp_counter "$NS_B" InDatagrams)
  bg "$NS_B" env LD_PRELOAD="$OSTREL_LIB" "$PYTHON3" "$MIX" recv "$bind" "$port" \
    "$total" "$peer" "$wait" >"$NETNS_TMP/out" 2>&1
  rpid=$BG_PID
  wait_line "$NETNS_TMP/out" "$rpid" ready || fail "$name: $(cat "$NETNS_TMP/out")"
  for leg; do
    IFS=, read -r ns dst size n opt <<<"$leg"
    [ "$ns" = a ] && ns=$NS_A || ns=$NS_B
    bg "$ns" "$PYTHON3" "$MIX" send "$dst" "$port" "$base" "$n" "$size" "$opt"
    pids+=("$BG_PID"); base=$((base + n))
  done
  for p in "${pids[@]}"; do wait "$p" || fail "$name: a sender failed"; done
  wait "$rpid" || fail "$FRIO_BACKEND $name: $(tr '\n' ' ' <"$NETNS_TMP/out")"
  in1=$(udp_counter "$NS_B" InDatagrams)
  # A wildcard socket must have been put on the bypass by its first send
  # (the dual-stack one sends over IPv6: a mapped peer keeps it on the kernel).
  [ "$peer" = - ] || tail -1 "$NETNS_TMP/out" | grep -q bypass ||
    fail "$FRIO_BACKEND $name: not on the bypass: $(tr '\n' ' ' <"$NETNS_TMP/out")"
  [ "$kern" = - ] || [ $((in1 - in0)) -eq "$kern" ] ||
    fail "$FRIO_BACKEND $name: $((in1 - in0)) through the kernel, not $kern"
  echo "ok: $FRIO_BACKEND $name: $(tail -1 "$NETNS_TMP/out"), $((in1 - in0)) through the kernel"
}

for backend in xdp packet; do
  export FRIO_BACKEND=$backend
  while read -r -u 3 line; do
    [ -n "$line" ] && run_case $line
  done 3<<EOF
own4    $IP4_B  -  0  0   a,$IP4_B,64,40,-
own6    $IP6_B  -  0  0   a,$IP6_B,64,40,-
frag4   $IP4_B  -  0  30  a,$IP4_B,100,30,-  a,$IP4_B,3000,30,-
frag6   $IP6_B  -  0  30  a,$IP6_B,100,30,-  a,$IP6_B,3000,30,-
loop4   $IP4_B  -  0  30  a,$IP4_B,100,30,-  b,$IP4_B,200,30,-
loop6   $IP6_B  -  0  30  a,$IP6_B,100,30,-  b,$IP6_B,200,30,-
dstopt6 $IP6_B  -  0  30  a,$IP6_B,100,30,-  a,$IP6_B,300,30,dstopts
any4    0.0.0.0 $IP4_A 0 - a,$IP4_B,100,20,- a,$B2_4,100,20,- a,$BC4,100,20,bcast
any6    ::      $IP6_A 0 - a,$IP6_B,100,20,- a,$B2_6,100,20,-
dual    ::      $IP6_A 0 - a,$IP4_B,100,20,- a,$B2_4,100,20,- a,$BC4,100,20,bcast
queued4 0.0.0.0 $IP4_A 1 - a,$IP4_B,100,40,-
queued6 ::      $IP6_A 1 - a,$IP6_B,100,40,-
EOF
done
echo "mix: passed"
