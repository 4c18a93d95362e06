#!/usr/bin/env bash
# bench.sh [main|suite|epoll|mixed|throughput|idle] [options]: UDP latency,
# throughput and CPU cost between two network namespaces joined by a
# single-queue veth pair, through the kernel and through ostrel in the same
# run on the same test bed, and the raw frame-access floor.  Latency tables
# give samples, min, p50, p99, p99.9 and max in microseconds, and messages
# per second.
#
#   main   (default) 64-byte sockperf ping-pong (one-way latency): kernel,
#          ostrel, raw libfrio floor; CPU time per datagram of both sides
#   epoll  64-byte ping-pong with sockperf's epoll multiplexer (-F epoll)
#          beside its blocking receive, and an asyncio echo round trip
#   suite  payloads 64, 512 and 1472 over IPv4 and IPv6, the receive
#          styles (busy-wait, poll mode, poll with a busy phase, select),
#          busy-polling kernel sockets, and one-way throughput
#   mixed  udp_reqgen (a sending and a receiving thread on one socket, -n
#          requests in flight) against udp_echo (poll, recvfrom, sendto):
#          five runs each of kernel and ostrel, alternating; requests per
#          second, round trip, CPU time per request, unanswered requests
#   throughput  four udp_flood sender/receiver pairs at once, one-way:
#          datagrams per second and the loss of each pair, unpaced, and at
#          the highest paced rate that loses nothing (BENCH_PAIRS=N: N pairs)
#   idle   a receiver blocked in recvfrom, and one in poll, with nothing
#          arriving: CPU use (default 10 s)
#
#   -t SECONDS  per case (default 5; mixed 4, idle 10)
#   -m BYTES  payload (main; 64)     -n REQUESTS  in flight (mixed; 10)
#   -b BACKEND  xdp (default) or packet      -6        IPv6 (main)
#
# Needs root and a build (scripts/build.sh).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
mode=main
case ${1:-} in main|suite|epoll|mixed|throughput|idle) mode=$1; shift ;; esac
secs= size=64 backend=xdp family=4 inflight=10
while getopts "t:m:b:n:6" o; do
  case $o in
  t) secs=$OPTARG ;; m) size=$OPTARG ;; b) backend=$OPTARG ;; 6) family=6 ;;
  n) inflight=$OPTARG ;;
  *) awk 'NR > 1 && !/^#/ { exit } NR > 1' "$0"; exit 2 ;;
  esac
done
case $mode in mixed) : "${secs:=4}" ;; idle) : "${secs:=10}" ;; *) : "${secs:=5}" ;; esac
OSTREL_BUILD=${OSTREL_BUILD:-$root/build}
. "$root/tests/lib/netns.sh"
bin=$OSTREL_BUILD/bin
netns_start
case $mode in
main | suite | epoll)
  command -v sockperf >/dev/null || fail "sockperf is not installed (scripts/setup.sh)" ;;
*) [ -x "$bin/udp_reqgen" ] || fail "no $bin/udp_reqgen: build first (scripts/build.sh)" ;;
esac
tick=$(getconf CLK_TCK)
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
  local server=$! t0 TIMEFORMAT='%3U %3S %3R'
  NETNS_PIDS+=("$server")
  wait_udp_port "$NS_B" "$port"
  t0=$(cpu_ticks "$server")
  # The client's CPU time from bash's time (its rusage), the server's from
  # /proc over the same stretch.
  if ! { time in_ns "$NS_A" env "${envs[@]}" sockperf pp "${where[@]}" \
      -t "$secs" -m "$bytes" --mps max "${opts[@]}" --full-log "$NETNS_TMP/pp.csv" \
      >"$NETNS_TMP/pp.log" 2>&1; } 2>"$NETNS_TMP/pp.time"; then
    printf '%-30s failed: %s\n' "$name" "$(tail -1 "$NETNS_TMP/pp.log")"
    stop "$server"
    return
  fi
  t0=$(($(cpu_ticks "$server") - t0))
  stop "$server"
  # --full-log: one line per sample, the one-way latency in column 4.
  awk -F, '/^ *[0-9]/ && NF >= 4 { print $4 + 0 }' "$NETNS_TMP/pp.csv" |
    sort -n >"$NETNS_TMP/pp.sorted"
  stats "$name" "$NETNS_TMP/pp.sorted" "$secs"
  # sockperf's whole run (its warm-up included; its 2 s wait before, in
  # which both sides block, is not) against the CPU time of both.
  cpu_record "$name" "$t0" $(sed -n \
    's/.*Total Run.*RunTime=\([0-9.]*\).*ReceivedMessages=\([0-9]*\).*/\2 \1/p' \
    "$NETNS_TMP/pp.log" | tail -1)
}

# cpu_record NAME SERVER_TICKS ROUND_TRIPS [SECONDS]: notes for cpu_table
# the client's user and system time (pp.time) and the server's over the
# same stretch, for ROUND_TRIPS (two datagrams each) in SECONDS (the
# client's real time without it).
cpu_record() {
  awk -v name="$1" -v srv="$2" -v tick="$tick" -v n="${3:-0}" -v t="${4:-0}" '{
      cpu = $1 + $2 + srv / tick
      if (!t) t = $3
      printf "%s\t%.2f\t%.2f\t%.2f\n", name, cpu, n ? 1e6 * cpu / (2 * n) : 0,
        t ? cpu / t : 0
    }' "$NETNS_TMP/pp.time" >>"$NETNS_TMP/cpu.tsv"
}

# cpu_ticks PID: PID's user and system time so far, in clock ticks.
cpu_ticks() {
  local st
  st=$(cat "/proc/$1/stat" 2>/dev/null) || { echo 0; return; }
  st=${st##*) }	# fields from the third on; utime and stime are 14, 15
  set -- $st
  echo $((${12} + ${13}))
}

# cpu_table: what the ping-pongs recorded: the CPU time of client and
# server together, per datagram, and in cores (over the client's run).
cpu_table() {
  [ -s "$NETNS_TMP/cpu.tsv" ] || return 0
  echo
  printf '%-30s %8s %12s %8s\n' "CPU, client and server" "cpu s" "us/datagram" cores
  awk -F'\t' '{ printf "%-30s %8.2f %12.2f %8.2f\n", $1, $2, $3, $4 }' "$NETNS_TMP/cpu.tsv"
  rm -f "$NETNS_TMP/cpu.tsv"
}

# pingpong6 NAME PRELOAD DST BYTES: the same with udp_pingpong, for IPv6
# (Debian 12's sockperf 3.7 has none).
pingpong6() {
  local name=$1 preload=$2 dst=$3 bytes=$4 envs=()
  local bin=$OSTREL_BUILD/bin/udp_pingpong
  [ "$preload" = yes ] && envs+=(LD_PRELOAD="$OSTREL_LIB")
  port=$((port + 1))
  ip netns exec "$NS_B" env "${envs[@]}" "$bin" server "$dst" "$port" &
  local server=$! t0 TIMEFORMAT='%3U %3S %3R'
  NETNS_PIDS+=("$server")
  wait_udp_port "$NS_B" "$port"
  t0=$(cpu_ticks "$server")
  { time in_ns "$NS_A" env "${envs[@]}" "$bin" client "$dst" "$port" "$bytes" "$secs" \
    >"$NETNS_TMP/pp.out"; } 2>"$NETNS_TMP/pp.time"
  t0=$(($(cpu_ticks "$server") - t0))
  stop "$server"
  sort -n "$NETNS_TMP/pp.out" >"$NETNS_TMP/pp.sorted"
  stats "$name" "$NETNS_TMP/pp.sorted" "$secs"
  # The client's first 1000 round trips are not printed.
  cpu_record "$name" "$t0" $(($(wc -l <"$NETNS_TMP/pp.sorted") + 1000))
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

# mixed_once CONFIG: one udp_reqgen run against a fresh udp_echo, both
# preloaded for CONFIG "ostrel"; appends the run's figures to
# $NETNS_TMP/mixed.CONFIG and its round-trip histogram to .hist.
mixed_once() {
  local cfg=$1 envs=() server in0 out=$NETNS_TMP/reqgen.out
  [ "$cfg" = ostrel ] && envs+=(LD_PRELOAD="$OSTREL_LIB")
  port=$((port + 1))
  ip netns exec "$NS_B" env "${envs[@]}" "$bin/udp_echo" "$dst4" "$port" &
  server=$!
  NETNS_PIDS+=("$server")
  wait_udp_port "$NS_B" "$port"
  in0=$(udp_counter "$NS_B" InDatagrams)
  # The generator reads the server's CPU time itself, over its own window.
  if ! in_ns "$NS_A" env "${envs[@]}" "$bin/udp_reqgen" "$dst4" "$port" "$secs" \
      "$inflight" 64 "$server" >"$out" 2>"$NETNS_TMP/reqgen.err"; then
    echo "$cfg: udp_reqgen failed: $(tail -1 "$NETNS_TMP/reqgen.err")" >&2
    stop "$server"
    return
  fi
  stop "$server"
  awk -v kin=$(($(udp_counter "$NS_B" InDatagrams) - in0)) '
    $1 == "requests" { printf "%d %d %.3f %.0f %.0f %d\n", $2, $4, $6, $8, $10, kin }
    ' "$out" >>"$NETNS_TMP/mixed.$cfg"
  grep '^[hm]' "$out" >>"$NETNS_TMP/mixed.$cfg.hist"
}

# mixed_line CONFIG: the table line over CONFIG's runs.
mixed_line() {
  local f=$NETNS_TMP/mixed.$1
  [ -s "$f" ] || { printf '%-8s no runs\n' "$1"; return; }
  # Rates sorted for the median; the histograms merged, bucket by bucket.
  local rates maxrtt
  rates=$(awk '{ print $2 / $3 }' "$f" | sort -n | tr '\n' ' ')
  maxrtt=$(awk '$1 == "max" && $2 > m { m = $2 } END { print m + 0 }' "$f.hist")
  grep '^h ' "$f.hist" | sort -k2,2n | awk -v name="$1" -v rates="$rates" \
    -v maxrtt="$maxrtt" -v runs="$f" '
    { b[NR] = $2; c[NR] = $3; total += $3 }
    END {
      while ((getline l < runs) > 0) {
        split(l, v, " "); sent += v[1]; ans += v[2]; secs += v[3]
        cpu += v[4] + v[5]; kin += v[6]
      }
      n = split(rates, r, " ")
      want[1] = 0.5; want[2] = 0.99; want[3] = 0.999; k = 1; acc = 0
      for (i = 1; i <= NR && k <= 3; i++) {
        acc += c[i]
        while (k <= 3 && acc >= want[k] * total) { p[k++] = b[i] / 10 }
      }
      printf "%-8s %9d %7.1f %7.1f %7.1f %7.1f %8.1f %8.0f %8.0f %8.0f %7.2f %6.2f %6d %7d\n",
        name, ans, b[1] / 10, p[1], p[2], p[3], maxrtt, r[1], r[int((n + 1) / 2)], r[n],
        ans ? cpu / ans : 0, cpu / 1e6 / secs, sent - ans, kin
    }'
}

# flood NAME PRELOAD [RATE [SECONDS]]: $pairs udp_flood pairs at once on
# distinct ports, each sender unpaced or at RATE datagrams a second;
# prints the table line and leaves the totals in flood_sent, flood_got.
flood() {
  local name=$1 envs=() rp=() sp=() i pid base=$port rate=${3:-0} t=${4:-$secs}
  [ "$2" = yes ] && envs+=(LD_PRELOAD="$OSTREL_LIB")
  port=$((port + pairs))
  for i in $(seq "$pairs"); do
    ip netns exec "$NS_B" env "${envs[@]}" "$bin/udp_flood" recv "$dst4" \
      $((base + i)) >"$NETNS_TMP/flood.recv$i" 2>"$NETNS_TMP/flood.ready$i" &
    rp+=($!)
    NETNS_PIDS+=($!)
  done
  # Senders start once every receiver's bind returned (the preloaded one
  # sets its socket up inside bind).
  for i in $(seq "$pairs"); do
    wait_line "$NETNS_TMP/flood.ready$i" "${rp[$((i - 1))]}" ready ||
      fail "udp_flood recv: $(cat "$NETNS_TMP/flood.ready$i")"
  done
  for i in $(seq "$pairs"); do
    in_ns "$NS_A" env "${envs[@]}" "$bin/udp_flood" send "$dst4" $((base + i)) \
      "$t" 64 "$rate" >"$NETNS_TMP/flood.sent$i" &
    sp+=($!)
  done
  wait "${sp[@]}" || true
  # A receiver ends at the end mark, or a second after its last datagram.
  for pid in "${rp[@]}"; do
    for _ in $(seq 50); do running "$pid" || break; sleep 0.1; done
    stop "$pid"
  done
  for i in $(seq "$pairs"); do
    echo "$(awk '{ print $2 }' "$NETNS_TMP/flood.sent$i") $(awk '{ print $2 }' "$NETNS_TMP/flood.recv$i")"
  done >"$NETNS_TMP/flood.pairs"
  read -r flood_sent flood_got < <(awk '{ s += $1; g += $2 } END { print s + 0, g + 0 }' \
    "$NETNS_TMP/flood.pairs")
  awk -v name="$name" -v secs="$t" '
    { s += $1; g += $2; lost = lost (NR > 1 ? "  " : "") ($1 - $2) "/" $1 }
    END { printf "%-30s %10d %10d %9.0f  %s\n", name, s, g, g / secs, lost }' \
    "$NETNS_TMP/flood.pairs"
}

# lossless NAME PRELOAD: the highest rate at which $pairs paced pairs lose
# nothing (RFC 2544's throughput): rates double from 8,000 a second per
# pair until a trial loses, then five halvings of the interval; 2 s trials.
lossless() {
  local name=$1 lo=0 hi=0 rate=8000 mid
  while [ "$hi" -eq 0 ] && [ "$rate" -le 2048000 ]; do
    flood "  $name $rate/s" "$2" "$rate" 2 >/dev/null
    if [ "$flood_got" -ge "$flood_sent" ]; then lo=$rate; rate=$((rate * 2)); else hi=$rate; fi
  done
  [ "$hi" -eq 0 ] && hi=$rate
  for _ in 1 2 3 4 5; do
    mid=$(((lo + hi) / 2))
    flood "  $name $mid/s" "$2" "$mid" 2 >/dev/null
    if [ "$flood_got" -ge "$flood_sent" ]; then lo=$mid; else hi=$mid; fi
  done
  # The rate found, run again for the run time, a tenth lower each time
  # that run loses some (three tries): its line is the result.
  for _ in 1 2 3; do
    [ "$lo" -gt 0 ] || break
    flood "$name" "$2" "$lo" >"$NETNS_TMP/flood.line"
    [ "$flood_got" -ge "$flood_sent" ] && break
    lo=$((lo * 9 / 10))
  done
  if [ "$lo" -gt 0 ]; then
    cat "$NETNS_TMP/flood.line"
  else
    printf '%-30s lost datagrams at every rate tried\n' "$name"
  fi
}

# idle NAME PRELOAD PROGRAM ARGS...: PROGRAM waits in NS_B with nothing
# arriving; its CPU use over the run time, after half a second to settle.
idle() {
  local name=$1 envs=() pid t0; shift
  [ "$1" = yes ] && envs+=(LD_PRELOAD="$OSTREL_LIB")
  shift
  port=$((port + 1))
  ip netns exec "$NS_B" env "${envs[@]}" "$@" "$dst4" "$port" >/dev/null &
  pid=$!
  NETNS_PIDS+=("$pid")
  wait_udp_port "$NS_B" "$port"
  sleep 0.5
  t0=$(cpu_ticks "$pid")
  sleep "$secs"
  t0=$(($(cpu_ticks "$pid") - t0))
  stop "$pid"
  awk -v n="$name" -v t="$t0" -v tick="$tick" -v secs="$secs" \
    'BEGIN { printf "%-30s %8.2f %8.1f\n", n, t / tick, 100 * t / tick / secs }'
}

dst4=$IP4_B dst6=$IP6_B
if [ "$mode" = mixed ]; then
  echo
  echo "Requests in flight: udp_reqgen, $inflight in flight, against udp_echo (poll), 64 B IPv4,"
  echo "5 runs of ${secs}s per configuration, alternating, backend $backend (round trip, usec;"
  echo "req/s min, median, max over the runs; cpu: both processes, us per request, cores)"
  printf '%-8s %9s %7s %7s %7s %7s %8s %8s %8s %8s %7s %6s %6s %7s\n' case requests \
    min p50 p99 p99.9 max "req/s lo" med hi "cpu/req" cores unansw "by kern"
  for _ in 1 2 3 4 5; do
    mixed_once kernel
    mixed_once ostrel
  done
  mixed_line kernel
  mixed_line ostrel
  for cfg in kernel ostrel; do
    printf '%-8s req/s by run: %s\n' "$cfg" "$(awk '{ printf " %.0f", $2 / $3 }' "$NETNS_TMP/mixed.$cfg")"
  done
  exit 0
fi
if [ "$mode" = throughput ]; then
  pairs=${BENCH_PAIRS:-4}
  echo
  echo "$pairs one-way flows at once, udp_flood, 64 B IPv4, ${secs}s, backend $backend"
  echo "unpaced senders, then the highest paced rate with nothing lost (found in 2 s trials)"
  printf '%-30s %10s %10s %9s  %s\n' case sent received "msg/s" "lost/sent per pair"
  flood "kernel  $pairs pairs, unpaced" no
  flood "ostrel  $pairs pairs, unpaced" yes
  lossless "kernel  $pairs pairs, lossless" no
  lossless "ostrel  $pairs pairs, lossless" yes
  exit 0
fi
if [ "$mode" = idle ]; then
  echo
  echo "Idle receivers, nothing arriving, ${secs}s each, backend $backend"
  printf '%-30s %8s %8s\n' case "cpu s" "% core"
  idle "kernel  blocking recvfrom" no "$bin/udp_pingpong" server
  idle "ostrel  blocking recvfrom" yes "$bin/udp_pingpong" server
  idle "kernel  poll" no "$bin/udp_echo"
  idle "ostrel  poll" yes "$bin/udp_echo"
  exit 0
fi
if [ "$mode" = epoll ]; then
  header "epoll, 64 B IPv4, ${secs}s per case, veth, backend $backend (one-way latency, usec)"
  pingpong "kernel  blocking recvfrom" no "$dst4" 64
  pingpong "ostrel  blocking recvfrom" yes "$dst4" 64
  pingpong "kernel  epoll" no "$dst4" 64 -- -F epoll
  pingpong "ostrel  epoll" yes "$dst4" 64 -- -F epoll
  pingpong "ostrel  epoll, 1 ms busy" yes "$dst4" 64 _OSTREL_EPOLL_USEC=1000 -- -F epoll
  asyncio_rtt "kernel  asyncio echo" no
  asyncio_rtt "ostrel  asyncio echo" yes
  cpu_table
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
  cpu_table
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
cpu_table

echo
echo "One-way throughput, 64 B IPv4, ${secs}s, as fast as the sender goes"
throughput "kernel -> kernel" no no
throughput "ostrel -> ostrel" yes yes
