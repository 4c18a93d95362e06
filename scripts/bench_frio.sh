#!/usr/bin/env bash
# bench_frio.sh [BACKEND[,BACKEND...]] [COUNT]: UDP round trips between two
# network namespaces joined by a single-queue veth pair, through kernel
# sockets and through raw libfrio handles (default backend xdp), printing
# min, p50, p99, p99.9 and max.  Makes the namespaces, runs, removes them.
# Needs root and a build (scripts/build.sh).
set -euo pipefail
cd "$(dirname "$0")/.."
backends=${1:-xdp}
count=${2:-200000}
bin=${OSTREL_BUILD:-build}/bin/frio_pingpong
[ "$(id -u)" = 0 ] || { echo "bench_frio: needs root" >&2; exit 1; }
[ -x "$bin" ] || { echo "bench_frio: no $bin; run scripts/build.sh" >&2; exit 1; }

a=fbencha$$ b=fbenchb$$
cleanup() { ip netns del "$a" 2>/dev/null || true; ip netns del "$b" 2>/dev/null || true; }
trap cleanup EXIT
ip netns add "$a"
ip netns add "$b"
ip -n "$a" link add vA numtxqueues 1 numrxqueues 1 type veth \
	peer name vB numtxqueues 1 numrxqueues 1 netns "$b"
ip -n "$a" addr add 10.79.0.1/24 dev vA
ip -n "$b" addr add 10.79.0.2/24 dev vB
ip -n "$a" link set vA up
ip -n "$b" link set vB up
# Resolve the neighbours now, not during the kernel-socket round trips.
ip netns exec "$a" python3 -c 'import socket; socket.socket(socket.AF_INET, socket.SOCK_DGRAM).sendto(b"x", ("10.79.0.2", 9))' || true
sleep 0.2
FRIO_DEBUG=${FRIO_DEBUG:-} "$bin" -n "$count" -b "$backends" "$a" vA 10.79.0.1 "$b" vB 10.79.0.2
