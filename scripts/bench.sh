#!/usr/bin/env bash
# bench.sh [SECONDS] [BYTES]: UDP round-trip latency between two network
# namespaces joined by a veth pair, sockperf ping-pong, the kernel path and
# ostrel in the same run on the same test bed.  Needs root and a build.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
secs=${1:-5}
size=${2:-64}
OSTREL_BUILD=${OSTREL_BUILD:-$root/build}
. "$root/tests/lib/netns.sh"
require_root
netns_pair

port=$((11000 + RANDOM % 1000))
# The server runs under the preload too in the ostrel case; one server each.
run_case() {
  local name=$1 preload=$2
  local envs=()
  [ -n "$preload" ] && envs=(LD_PRELOAD="$OSTREL_LIB")
  port=$((port + 1))
  in_ns "$NS_B" env "${envs[@]}" sockperf sr --ip "$IP4_B" --port "$port" \
    >/dev/null 2>&1 &
  local server=$!
  NETNS_PIDS+=("$server")
  wait_udp_port "$NS_B" "$port"
  in_ns "$NS_A" env "${envs[@]}" sockperf pp --ip "$IP4_B" --port "$port" \
    -t "$secs" -m "$size" --full-log "$NETNS_TMP/$name.csv" \
    >"$NETNS_TMP/$name.log" 2>&1 || { cat "$NETNS_TMP/$name.log"; fail "$name"; }
  kill "$server" 2>/dev/null || true
  # sockperf logs half the round trip of each sample as its latency.
  awk -F, '/^ *[0-9]/ && NF >= 4 { print $4 + 0 }' \
    "$NETNS_TMP/$name.csv" | sort -n >"$NETNS_TMP/$name.sorted"
  awk -v name="$name" '{ v[NR] = $1 }
    END {
      if (NR == 0) { print name ": no samples"; exit 1 }
      printf "%-8s %8d %8.2f %8.2f %8.2f %8.2f %8.2f\n", name, NR, v[1],
        v[int(NR * 0.50)], v[int(NR * 0.99)], v[int(NR * 0.999)], v[NR]
    }' "$NETNS_TMP/$name.sorted"
}

echo "UDP latency, usec (half round trip), ${size}-byte datagrams, ${secs}s each, veth $IF_A -> $IF_B"
printf '%-8s %8s %8s %8s %8s %8s %8s\n' path samples min p50 p99 p99.9 max
run_case kernel ""
run_case ostrel yes
