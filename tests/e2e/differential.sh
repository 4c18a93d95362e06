#!/usr/bin/env bash
# The differential table: every row of differential.c runs on kernel
# sockets and then under the preload, each in a fresh process, against the
# same plain peer in the other namespace; what the application observed
# must be the same line for line.  For rows whose datagrams should all come
# off the ring, the preloaded run must leave the namespace's kernel
# InDatagrams where it was.  Prints one line per row, and both sides of
# every line that differs.
#
#   differential.sh [ROW...]      all rows by default; with VERBOSE=1
#                                 also what the kernel's side printed
set -uo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_start
netns_pair
export FRIO_BACKEND=${FRIO_BACKEND:-xdp}
DIFF=$OSTREL_BUILD/tests/differential
CTL=$NETNS_TMP/ctl

# Differences that are the library's design, one "row: reason" a line.
KNOWN=(
)

known() {
  local k
  for k in "${KNOWN[@]}"; do [ "${k%%:*}" = "$1" ] && return 0; done
  return 1
}

# Every refused send must get its ICMP error back, however many rows ran.
in_ns "$NS_A" sysctl -qw net.ipv4.icmp_ratelimit=0
bg "$NS_A" "$DIFF" peer "$IP4_B" "$IP4_A" "$CTL" "$IP6_B" "$IP6_A"
PEER=$BG_PID
for i in $(seq 100); do [ -S "$CTL" ] && break; sleep 0.05; done
[ -S "$CTL" ] || fail "the peer did not start"

# run ROW [PRELOAD]: the row's output, and how it ended if not well.
run() {
  local out st=0
  out=$(timeout 8 ip netns exec "$NS_B" env ${2:+LD_PRELOAD=$2} "$DIFF" "$1" \
    "$IP4_B" "$IP4_A" "$CTL" "$IP6_B" "$IP6_A" 2>"$NETNS_TMP/err") || st=$?
  printf '%s\n' "$out"
  [ $st -eq 0 ] || echo "exit status $st"
}

rows=$("$DIFF" list)
[ $# -eq 0 ] || rows=$(printf '%s\n' "$rows" | grep -wE "^($(IFS='|'; echo "$*"))")
same=0 differ=0 bad=0
while read -r row how; do
  kernel=$(run "$row")
  in0=$(udp_counter "$NS_B" InDatagrams)
  ours=$(run "$row" "$OSTREL_LIB")
  through=$(($(udp_counter "$NS_B" InDatagrams) - in0))
  path=$(sed -n 's/^path: //p' "$NETNS_TMP/err" | sort -u | paste -sd,)
  note="[${path:-no socket settled}, $through through the kernel]"
  if [[ $kernel == *"exit status"* ]]; then
    verdict="BROKEN on kernel sockets"; differ=$((differ + 1))
  elif [ "$kernel" = "$ours" ]; then
    verdict=same; same=$((same + 1))
  elif known "$row"; then
    verdict="differs (known)"; same=$((same + 1))
  else
    verdict=DIFFERS; differ=$((differ + 1))
  fi
  if [ "$how" = ring ] && [ "$through" -ne 0 ]; then
    verdict="$verdict, KERNEL PATH"; bad=$((bad + 1))
  fi
  printf '%-22s %-28s %s\n' "$row" "$verdict" "$note"
  [ -z "${VERBOSE:-}" ] || printf '%s\n' "$kernel" | sed 's/^/    /'
  [ "$kernel" = "$ours" ] ||
    diff <(printf '%s\n' "$kernel") <(printf '%s\n' "$ours") |
    sed -n 's/^< /    kernel:  /p; s/^> /    preload: /p'
done <<<"$rows"
kill "$PEER"
wait "$PEER" 2>/dev/null
echo "differential: $same same, $differ differ, $bad on the kernel path ($FRIO_BACKEND)"
[ $differ -eq 0 ] && [ $bad -eq 0 ]
