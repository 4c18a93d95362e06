#!/usr/bin/env bash
# bench_frio.sh [BACKEND[,BACKEND...]] [COUNT]: UDP round trips between two
# network namespaces joined by a single-queue veth pair, through kernel
# sockets and through raw libfrio handles (default backend xdp), printing
# min, p50, p99, p99.9 and max.  Makes the namespaces, runs, removes them.
# Needs root and a build (scripts/build.sh).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
backends=${1:-xdp}
count=${2:-200000}
OSTREL_BUILD=${OSTREL_BUILD:-$root/build}
. "$root/tests/lib/netns.sh"
netns_start
bin=$OSTREL_BUILD/bin/frio_pingpong
[ -x "$bin" ] || fail "no $bin; run scripts/build.sh"
netns_pair
FRIO_DEBUG=${FRIO_DEBUG:-} "$bin" -n "$count" -b "$backends" \
  "$NS_A" "$IF_A" "$IP4_A" "$NS_B" "$IF_B" "$IP4_B"
