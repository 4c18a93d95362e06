#!/usr/bin/env bash
# bench.sh [main|suite] [options]: UDP latency and throughput between two
# network namespaces joined by a single-queue veth pair, unmodified sockperf
# through the kernel and through ostrel in the same run on the same test
# bed, and the raw frame-access floor.  Prints one line per case: samples,
# min, p50, p99, p99.9 and max of the one-way latency (half the round trip)
# in microseconds, and messages per second.
#
#   main   (default) 64-byte ping-pong: kernel, ostrel, raw libfrio floor
#   epoll  64-byte ping-pong with sockperf's epoll multiplexer (-F epoll)
#          beside its blocking receive, and an asyncio echo round trip
#   suite  payloads 64, 512 and 1472 over IPv4 and IPv6, the receive
#          styles (busy-wait, poll mode, poll with a busy phase, select),
#          busy-polling kernel sockets, and one-way throughput
#
#   -t SECONDS  per case (default 5)        -m BYTES  payload (main; 64)
#   -b BACKEND  xdp (default) or packet      -6        IPv6 (main)
#
# Needs root and a build (scripts/build.sh).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
mode=main
case ${1:-} in main|suite|epoll) mode=$1; shift ;; esac
secs=5 size=64 backend=xdp family=4
while getopts "t:m:b:6" o; do
  case $o in
  t) secs=$OPTARG ;; m) size=$OPTARG ;; b) backend=$OPTARG ;; 6) family=6 ;;
  *) sed -n '2,19p' "$0"; exit 2 ;;
  esac
done
OSTREL_BUILD=${OSTREL_BUILD:-$root/build}
. "$root/tests/lib/netns.sh"
netns_start
command -v sockperf >/dev/null || fail "sockperf is not installed (scripts/setup.sh)"
netns_pair
export FRIO_BACKEND=$backend
port=$((11000 + RANDOM % 1000))

header() {
  echo
  echo "$1"
  printf '%-30s %8s %8s %8s %8s %8s %8s %9s\n' case samples min p50 p99 p99.9 max msg/s
}

# stats NAME FILE SECONDS: the table line for sorted one-way latencies.
stats() {
  awk -v name="$1" -v secs="$3" '{ v[NR] = $1 }
    END {
      if (NR == 0) { printf "%-30s no samples\n", name; exit }
      i50 = int(NR * 0.50); i99 = int(NR * 0.99); i999 = int(NR * 0.999)
      if (i50 < 1) i50 = 1; if (i99 < 1) i99 = 1; if (i999 < 1) i999 = 1
      printf "%-30s %8d %8.2f %8.2f %8.2f %8.2f %8.2f %9.0f\n", name, NR,
        v[1], v[i50], v[i99], v[i999], v[NR], NR / secs
    }' "$2"
}

# stop PID: ends a server and waits, so that its handles are gone before
# the next case opens its own.
stop() {
  kill "$1" 2>/dev/null || true
  # A server spinning on a non-blocking socket may not notice SIGTERM.
  for _ in 1 2 3 4 5 6 7 8 9 10; do kill -0 "$1" 2>/dev/null || break; sleep 0.1; done
  kill -9 "$1" 2>/dev/null || true
  wait "$1" 2>/dev/null || true
}

# pingpong NAME PRELOAD DST BYTES [ENV...] [-- SOCKPERF_OPTS...]: one
# sockperf ping-pong; PRELOAD "yes" preloads both sides.
pingpong() {
  local name=$1 preload=$2 dst=$3 bytes=$4; shift 4
  local envs=() opts=()
  while [ $# -gt 0 ] && [ "$1" != -- ]; do envs+=("$1"); shift; done
  [ $# -gt 0 ] && shift
  opts=("$@")
  [ "$preload" = yes ] && envs+=(LD_PRELOAD="$OSTREL_LIB")
  port=$((port + 1))
  # sockperf takes -F (the waiting call) only with a feed file.
  local where=(--ip "$dst" --port "$port")
  if [[ " ${opts[*]-} " == *" -F "* ]]; then
    echo "U:$dst:$port" >"$NETNS_TMP/feed"
    where=(-f "$NETNS_TMP/feed")
  fi
  ip netns exec "$NS_B" env "${envs[@]}" sockperf sr "${where[@]}" \
    "${opts[@]}" >/dev/null 2>&1 &
  local server=$!
  NETNS_PIDS+=("$server")
  wait_udp_port "$NS_B" "$port"
  if ! in_ns "$NS_A" env "${envs[@]}" sockperf pp "${where[@]}" \
      -t "$secs" -m "$bytes" --mps max "${opts[@]}" --full-log "$NETNS_TMP/pp.csv" \
      >"$NETNS_TMP/pp.log" 2>&1; then
    printf '%-30s failed: %s\n' "$name" "$(tail -1 "$NETNS_TMP/pp.log")"
    stop "$server"
    return
  fi
  stop "$server"
  # --full-log: one line per sample, the one-way latency in column 4.
  awk -F, '/^ *[0-9]/ && NF >= 4 { print $4 + 0 }' "$NETNS_TMP/pp.csv" |
    sort -n >"$NETNS_TMP/pp.sorted"
  stats "$name" "$NETNS_TMP/pp.sorted" "$secs"
}

# pingpong6 NAME PRELOAD DST BYTES: the same with udp_pingpong, for IPv6
# (Debian 12's sockperf 3.7 has none).
pingpong6() {
  local name=$1 preload=$2 dst=$3 bytes=$4 envs=()
  local bin=$OSTREL_BUILD/bin/udp_pingpong
  [ "$preload" = yes ] && envs+=(LD_PRELOAD="$OSTREL_LIB")
  port=$((port + 1))
  ip netns exec "$NS_B" env "${envs[@]}" "$bin" server "$dst" "$port" &
  local server=$!
  NETNS_PIDS+=("$server")
  wait_udp_port "$NS_B" "$port"
  in_ns "$NS_A" env "${envs[@]}" "$bin" client "$dst" "$port" "$bytes" "$secs" |
    sort -n >"$NETNS_TMP/pp.sorted"
  stop "$server"
  stats "$name" "$NETNS_TMP/pp.sorted" "$secs"
}

# floor BYTES: raw libfrio round trips, with busy-polling kernel sockets
# beside them, from frio_pingpong (which reports round trips: halved here).
floor() {
  local bin=$OSTREL_BUILD/bin/frio_pingpong
  [ -x "$bin" ] || { printf '%-30s no %s\n' "libfrio raw floor" "$bin"; return; }
  [ "$1" -ge 8 ] && [ "$1" -le 1400 ] || return 0
  "$bin" -n $((secs * 40000)) -s "$1" -b "$backend" \
    "$NS_A" "$IF_A" "$IP4_A" "$NS_B" "$IF_B" "$IP4_B" 2>"$NETNS_TMP/floor.err" |
    awk '/^kernel sockets|^frio / && NF >= 9 && $3 != "failed" {
      name = $1 == "kernel" ? "kernel busy-poll (raw socket)" : "libfrio raw floor (" $2 ")"
      printf "%-30s %8d %8.2f %8.2f %8.2f %8.2f %8.2f %9s\n", name, $3,
        $4 / 2, $5 / 2, $6 / 2, $7 / 2, $8 / 2, "-" }'
}

# throughput NAME SERVER_PRELOAD CLIENT_PRELOAD: sockperf tp at full speed
# for the run time; the server counts what arrived.
throughput() {
  local name=$1 spre=$2 cpre=$3 se=() ce=()
  [ "$spre" = yes ] && se=(LD_PRELOAD="$OSTREL_LIB")
  [ "$cpre" = yes ] && ce=(LD_PRELOAD="$OSTREL_LIB")
  port=$((port + 1))
  ip netns exec "$NS_B" env "${se[@]}" sockperf sr --ip "$IP4_B" --port "$port" \
    >"$NETNS_TMP/sr.log" 2>&1 &
  local server=$!
  NETNS_PIDS+=("$server")
  wait_udp_port "$NS_B" "$port"
  in_ns "$NS_A" env "${ce[@]}" sockperf tp --ip "$IP4_B" --port "$port" \
    -t "$secs" -m 64 >"$NETNS_TMP/tp.log" 2>&1 || true
  sleep 0.5
  kill -INT "$server" 2>/dev/null || true
  wait "$server" 2>/dev/null || true
  local sent got
  sent=$(sed -n 's/.*Total of \([0-9]*\) messages sent.*/\1/p' "$NETNS_TMP/tp.log" | tail -1)
  got=$(sed -n 's/.*Total \([0-9]*\) messages received.*/\1/p' "$NETNS_TMP/sr.log" | tail -1)
  awk -v n="$name" -v s="${sent:-0}" -v g="${got:-0}" -v t="$secs" 'BEGIN {
    printf "%-30s sent %10d  received %10d  (%5.1f%%)  %9.0f msg/s received\n",
      n, s, g, s ? 100 * g / s : 0, g / t }'
}

# asyncio_rtt NAME PRELOAD: an asyncio echo server and client, the
# client's one-way latencies (half of each round trip) for the run time.
asyncio_rtt() {
  local name=$1 envs=()
  [ "$2" = yes ] && envs+=(LD_PRELOAD="$OSTREL_LIB")
  port=$((port + 1))
  cat >"$NETNS_TMP/aio.py" <<'PY'
import asyncio, sys, time
mode, addr, port, secs = sys.argv[1], sys.argv[2], int(sys.argv[3]), float(sys.argv[4])
class Echo(asyncio.DatagramProtocol):
    def connection_made(self, t): self.t = t
    def datagram_received(self, d, peer): self.t.sendto(d, peer)
class Client(asyncio.DatagramProtocol):
    def __init__(self, done): self.done, self.lat = done, []
    def connection_made(self, t):
        self.t, self.end = t, time.monotonic() + secs
        self.t0 = time.perf_counter(); t.sendto(b"x" * 64)
    def datagram_received(self, d, peer):
        now = time.perf_counter()
        self.lat.append((now - self.t0) * 5e5)
        if time.monotonic() >= self.end: self.done.set_result(self.lat)
        else: self.t0 = time.perf_counter(); self.t.sendto(b"x" * 64)
async def main():
    loop = asyncio.get_running_loop()
    if mode == "server":
        await loop.create_datagram_endpoint(Echo, local_addr=(addr, port))
        await asyncio.sleep(3600)
    done = loop.create_future()
    await loop.create_datagram_endpoint(lambda: Client(done), remote_addr=(addr, port))
    for v in await asyncio.wait_for(done, secs + 10): print("%.3f" % v)
asyncio.run(main())
PY
  ip netns exec "$NS_B" env "${envs[@]}" "$PYTHON3" "$NETNS_TMP/aio.py" server \
    "$dst4" "$port" "$secs" >/dev/null 2>&1 &
  local server=$!
  NETNS_PIDS+=("$server")
  wait_udp_port "$NS_B" "$port"
  in_ns "$NS_A" env "${envs[@]}" "$PYTHON3" "$NETNS_TMP/aio.py" client "$dst4" \
    "$port" "$secs" | sort -n >"$NETNS_TMP/pp.sorted" || true
  stop "$server"
  stats "$name" "$NETNS_TMP/pp.sorted" "$secs"
}

dst4=$IP4_B dst6=$IP6_B
if [ "$mode" = epoll ]; then
  header "epoll, 64 B IPv4, ${secs}s per case, veth, backend $backend (one-way latency, usec)"
  pingpong "kernel  blocking recvfrom" no "$dst4" 64
  pingpong "ostrel  blocking recvfrom" yes "$dst4" 64
  pingpong "kernel  epoll" no "$dst4" 64 -- -F epoll
  pingpong "ostrel  epoll" yes "$dst4" 64 -- -F epoll
  pingpong "ostrel  epoll, 1 ms busy" yes "$dst4" 64 _OSTREL_EPOLL_USEC=1000 -- -F epoll
  asyncio_rtt "kernel  asyncio echo" no
  asyncio_rtt "ostrel  asyncio echo" yes
  exit 0
fi
if [ "$mode" = main ]; then
  header "UDP ping-pong, ${size}-byte payload, IPv$family, ${secs}s per case, veth, backend $backend (one-way latency, usec)"
  if [ "$family" = 6 ]; then
    pingpong6 "kernel" no "$dst6" "$size"
    pingpong6 "ostrel" yes "$dst6" "$size"
  else
    pingpong "kernel" no "$dst4" "$size"
    pingpong "ostrel" yes "$dst4" "$size"
  fi
  [ "$family" = 4 ] && floor "$size"
  exit 0
fi

if [ -z "${BENCH_STYLES_ONLY:-}" ]; then
header "Ping-pong by payload and family, backend $backend (one-way latency, usec)"
for bytes in 64 512 1472; do
  for fam in 4 6; do
    dst=$dst4; [ $fam = 6 ] && dst=$dst6
    b=$bytes; [ $fam = 6 ] && [ "$bytes" = 1472 ] && b=1452
    if [ $fam = 4 ]; then
      pingpong "kernel  IPv$fam $b B" no "$dst" "$b"
      pingpong "ostrel  IPv$fam $b B" yes "$dst" "$b"
    else
      pingpong6 "kernel  IPv$fam $b B (udp_pp)" no "$dst" "$b"
      pingpong6 "ostrel  IPv$fam $b B (udp_pp)" yes "$dst" "$b"
    fi
  done
done
floor 64
fi

header "Receive styles, 64 B IPv4 (one-way latency, usec)"
pingpong "kernel  blocking recvfrom" no "$dst4" 64
pingpong "kernel  busy-polling recvfrom" no "$dst4" 64 -- --nonblocked
pingpong "ostrel  busy-wait recv" yes "$dst4" 64
pingpong "ostrel  poll mode recv" yes "$dst4" 64 _OSTREL_RECV_MODE=0
pingpong "kernel  poll" no "$dst4" 64 -- -F poll
pingpong "ostrel  poll, 1 ms busy" yes "$dst4" 64 _OSTREL_POLL_USEC=1000 -- -F poll
pingpong "ostrel  poll, no busy phase" yes "$dst4" 64 -- -F poll
pingpong "kernel  select" no "$dst4" 64 -- -F select
pingpong "ostrel  select" yes "$dst4" 64 -- -F select

echo
echo "One-way throughput, 64 B IPv4, ${secs}s, as fast as the sender goes"
throughput "kernel -> kernel" no no
throughput "ostrel -> ostrel" yes yes
