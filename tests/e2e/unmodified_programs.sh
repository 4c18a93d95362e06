#!/usr/bin/env bash
# Unmodified programs on the bypass: sockperf ping-pong and throughput (one
# side or both preloaded), socat both ways, python3 echo; each preloaded
# namespace's kernel UDP counters stay still, every payload is checked.
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_test
command -v sockperf >/dev/null || fail "sockperf is not installed (scripts/setup.sh)"
export FRIO_BACKEND=${FRIO_BACKEND:-xdp}

# counters NS: "in out" of the kernel's UDP counters in NS.
counters() { echo "$(udp_counter "$1" InDatagrams) $(udp_counter "$1" OutDatagrams)"; }
# kernel NAME NS BEFORE [FIELD MIN]: NS's counters did not move since
# BEFORE (bypassed); with FIELD (in|out), it grew by MIN at least instead.
kernel() {
  local now; now=$(counters "$2")
  [ $# -gt 3 ] || { [ "$now" = "$3" ] || fail "$1: kernel UDP counters in $2 moved: $3 -> $now"; return 0; }
  set -- "$@" $3 $now  # ${6} ${7}: in out before; ${8} ${9}: now
  local d=$((${8} - ${6})); [ "$4" = in ] || d=$((${9} - ${7}))
  [ "$d" -ge "$5" ] || fail "$1: kernel $4 count in $2 grew $d, not $5"
}
pl() { echo env LD_PRELOAD="$OSTREL_LIB"; }
# stop_last: ends the newest background program (one process at a time
# holds an AF_XDP queue); SIGTERM must end it, as without the preload.
stop_last() {
  local pid=${NETNS_PIDS[-1]} i
  kill "$pid" 2>/dev/null || true
  for i in $(seq 60); do running "$pid" || break; sleep 0.05; done
  ! running "$pid" || fail "$(ps -o args= "$pid") did not end on SIGTERM"
  wait "$pid" 2>/dev/null || true
}
port=$((30000 + RANDOM % 10000))

# server PRE CMD...: starts CMD in B (preloaded when PRE is set), waits for
# its port (and for it to attach when preloaded), and notes the counters.
server() {
  local pre=$1; shift
  port=$((port + 1))
  bg "$NS_B" ${pre:+$(pl)} "$@" --ip "$IP4_B" --port "$port" >/dev/null 2>&1
  wait_udp_port "$NS_B" "$port"
  [ -z "$pre" ] || wait_attached "$BG_PID" || fail "$* not attached"
  a0=$(counters "$NS_A") b0=$(counters "$NS_B")
}

# 1. sockperf ping-pong, both sides preloaded and the client alone against
#    a kernel server; sockperf's own sequence checks catch a lost or
#    mangled reply.  (Debian 12's sockperf 3.7 has no IPv6: python3 and
#    socat cover IPv6 below.)
for server_pre in yes ""; do
  name=${server_pre:+both preloaded}; name=${name:-preloaded client, kernel server}
  server "$server_pre" sockperf sr
  out=$(in_ns "$NS_A" $(pl) sockperf pp --ip "$IP4_B" --port "$port" -t 2 -m 64 2>&1) ||
    { echo "$out"; fail "sockperf pp $name"; }
  grep -q "Summary: Latency is" <<<"$out" || { echo "$out"; fail "sockperf pp $name: no summary"; }
  kernel "sockperf pp $name" "$NS_A" "$a0"
  kernel "sockperf pp $name" "$NS_B" "$b0" $([ -n "$server_pre" ] || echo in 1000)
  stop_last
  echo "ok: sockperf ping-pong, $name"
done

# 2. sockperf throughput: both preloaded, then each side alone against a
#    kernel peer.
for case in "yes yes" "- yes" "yes -"; do
  read -r server_pre client_pre <<<"${case//-/}"
  name="server ${server_pre:-kernel}, client ${client_pre:-kernel}"
  server "$server_pre" sockperf sr
  rcvbuf0=$(udp_counter "$NS_B" RcvbufErrors)
  out=$(in_ns "$NS_A" ${client_pre:+$(pl)} sockperf tp --ip "$IP4_B" --port "$port" \
    -t 2 -m 64 --mps 20000 2>&1) || { echo "$out"; fail "sockperf tp $name"; }
  sent=$(sed -n 's/.*Total of \([0-9]*\) messages sent.*/\1/p' <<<"$out" | tail -1)
  [ "${sent:-0}" -gt 1000 ] || { echo "$out"; fail "sockperf tp $name: sent '$sent'"; }
  kernel "tp $name client" "$NS_A" "$a0" $([ -n "$client_pre" ] || echo out "$sent")
  # Without the preload every datagram reached the kernel's UDP: delivered,
  # or dropped by a full socket buffer when sockperf's reader fell behind.
  [ -n "$server_pre" ] && kernel "tp $name server" "$NS_B" "$b0" ||
    kernel "tp $name server" "$NS_B" "$(($(udp_counter "$NS_B" RcvbufErrors) - rcvbuf0 + ${b0% *})) 0" in $((sent * 99 / 100))
  stop_last
  echo "ok: sockperf throughput, $name ($sent messages)"
done

# 3. socat, one side preloaded: a preloaded sender in A over IPv4, a
#    preloaded receiver in A over IPv6.
want=$(seq 1 200 | tr -d '\n')
for case in "4 $NS_A $NS_B $IP4_B" "6 $NS_B $NS_A [$IP6_A]"; do
  read -r fam tx rx rxip <<<"$case"
  port=$((port + 1))
  rm -f "$NETNS_TMP/socat.out"
  bg "$rx" $( [ $fam = 6 ] && pl) socat -u "UDP$fam-RECV:$port,bind=$rxip" \
    "OPEN:$NETNS_TMP/socat.out,creat,append"
  wait_udp_port "$rx" "$port"
  [ $fam = 4 ] || wait_attached "$BG_PID" || fail "socat receiver not attached"
  r0=$(counters "$rx") t0=$(counters "$tx")
  echo -n "$want" | in_ns "$tx" $( [ $fam = 4 ] && pl) socat -u - "UDP$fam-SENDTO:$rxip:$port"
  for _ in $(seq 50); do [ -s "$NETNS_TMP/socat.out" ] && break; sleep 0.05; done
  [ "$(cat "$NETNS_TMP/socat.out")" = "$want" ] || fail "socat IPv$fam"
  [ $fam = 4 ] && kernel "socat IPv4 sender" "$tx" "$t0" || kernel "socat IPv6 receiver" "$rx" "$r0"
  stop_last
  echo "ok: socat IPv$fam"
done

# 4. python3 echo, both preloaded, IPv4 and IPv6; the client checks every
#    reply.  (Waits in select and poll: the differential table.)
cat >"$NETNS_TMP/echo.py" <<'PY'
import socket, sys
role, addr, port, count = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
s = socket.socket(socket.AF_INET6 if ":" in addr else socket.AF_INET, socket.SOCK_DGRAM)
s.settimeout(5)
if role == "server":
    s.bind((addr, port))
for i in range(count):
    if role == "server":
        data, peer = s.recvfrom(2048)
        s.sendto(data[::-1], peer)
        continue
    msg = (b"%d:" % i) + bytes(range(256)) * (i % 6)
    s.sendto(msg, (addr, port))
    if s.recv(2048) != msg[::-1]:
        sys.exit("client: wrong reply to %d" % i)
print("echoed %d" % count)
PY
for dst in "$IP4_B" "$IP6_B"; do
  port=$((port + 1))
  bg "$NS_B" $(pl) "$PYTHON3" "$NETNS_TMP/echo.py" server "$dst" "$port" 50
  wait_udp_port "$NS_B" "$port"
  wait_attached "$BG_PID" || fail "python3 echo server not attached"
  a0=$(counters "$NS_A") b0=$(counters "$NS_B")
  out=$(in_ns "$NS_A" $(pl) "$PYTHON3" "$NETNS_TMP/echo.py" client "$dst" "$port" 50 2>&1) ||
    fail "python3 echo $dst: $out"
  [ "$out" = "echoed 50" ] || fail "python3 echo $dst: $out"
  kernel "python3 echo $dst" "$NS_A" "$a0"
  kernel "python3 echo $dst" "$NS_B" "$b0"
  stop_last
  echo "ok: python3 echo, $dst"
done
echo "unmodified_programs: passed ($FRIO_BACKEND)"
