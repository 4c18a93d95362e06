#!/usr/bin/env bash
# A preloaded receiver gets every datagram an unmodified kernel sender
# sends, payloads from empty to the largest the MTU allows, through each
# receive call, poll and select, in both receive modes and with poll's
# busy phase unbounded and bounded, IPv4 and IPv6; the receiver's
# kernel InDatagrams counter shows that none passed through its kernel.
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_start
SEND=$OSTREL_BUILD/tests/udp_send
RECV=$(dirname "$0")/udp_recv.py
netns_pair
export FRIO_BACKEND=${FRIO_BACKEND:-xdp}
COUNT=60

# run_case CALL DST [ENV...]: COUNT datagrams from a kernel sender in A,
# received with CALL by a preloaded udp_recv.py; none through B's kernel.
run_case() {
  local call=$1 dst=$2 port in0 pid; shift 2
  port=$((20000 + RANDOM % 20000))
  : >"$NETNS_TMP/ready"
  bg "$NS_B" env LD_PRELOAD="$OSTREL_LIB" "$@" "$PYTHON3" "$RECV" \
    "$dst" "$port" "$COUNT" "$call" >"$NETNS_TMP/got" 2>"$NETNS_TMP/ready"
  pid=$BG_PID
  # "ready" follows bind, and the socket is on the bypass once bind returns.
  wait_line "$NETNS_TMP/ready" "$pid" ready || fail "$call $dst: receiver"
  in0=$(udp_counter "$NS_B" InDatagrams)
  in_ns "$NS_A" "$SEND" sendto "$dst" "$port" "$COUNT" >"$NETNS_TMP/sent" || fail "sender"
  wait "$pid" || fail "$call $dst $*: receiver failed: $(cat "$NETNS_TMP/ready")"
  cmp -s "$NETNS_TMP/sent" "$NETNS_TMP/got" || fail "$call $dst $*: payloads differ"
  in0=$(($(udp_counter "$NS_B" InDatagrams) - in0))
  [ $in0 -eq 0 ] || fail "$call $dst $*: $in0 through the kernel"
  echo "ok: $call $dst $*"
}

# Every call over IPv4 (recvfrom over IPv6 in mix.sh and
# unmodified_programs.sh).  The receive mode changes only blocking
# receives, the busy phase only poll (select always spins).
for call in recv recvfrom recvmsg read poll select; do run_case "$call" "$IP4_B"; done
run_case recvmsg "$IP6_B"
run_case recv "$IP4_B" _OSTREL_RECV_MODE=0
run_case poll "$IP4_B" _OSTREL_POLL_USEC=-1
run_case poll "$IP6_B" _OSTREL_POLL_USEC=200
# Waits end as a kernel's would: SO_RCVTIMEO bounds a blocking receive, a
# signal handler ends a waiting receive or select (EINTR), also one that
# lands while select still spins, and a select over ordinary descriptors
# alone sleeps instead of spinning.
cat >"$NETNS_TMP/waits.py" <<'PY'
import os, select, signal, socket, struct, sys, time
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind((sys.argv[1], 5999))
s.getsockopt(socket.SOL_SOCKET, 0x101b, 40)  # on the bypass path
s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVTIMEO, struct.pack("ll", 0, 200000))
t = time.monotonic()
try:
    s.recv(10)
    sys.exit("data from nowhere")
except BlockingIOError:
    pass
assert 0.15 < time.monotonic() - t < 2, time.monotonic() - t
s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVTIMEO, struct.pack("ll", 0, 0))
class Stop(Exception):
    pass
def stop(*_):
    raise Stop
signal.signal(signal.SIGALRM, stop)
# 0.005 s: lands while select still spins.
for wait, after in [(lambda: s.recv(10), 0.3)] + [(lambda: select.select([s], [], []), t)
                                                 for t in [0.3] + [0.005] * 20]:
    signal.setitimer(signal.ITIMER_REAL, after)
    try:
        wait()
        sys.exit("a wait returned")
    except Stop:
        pass
r, _ = os.pipe()
cpu = time.process_time()
select.select([r], [], [], 0.5)
assert time.process_time() - cpu < 0.2, "select spun"
print("waits ok")
PY
out=$(timeout 10 ip netns exec "$NS_B" env LD_PRELOAD="$OSTREL_LIB" "$PYTHON3" \
  "$NETNS_TMP/waits.py" "$IP4_B" 2>&1) || fail "waits: ${out:-hung (status $?)}"
echo "ok: $out"
echo "receive: passed ($FRIO_BACKEND)"
