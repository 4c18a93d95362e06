#!/bin/bash
# frio_backend.sh xdp: the AF_XDP backend of libfrio on a veth pair between
# two namespaces.  Handles live in A; B has only kernel sockets.  Needs root;
# exit 77 means skipped.  FRIODUMP, FRIO_PROBE: the programs.
set -u

BACKEND=${1:?usage: $0 xdp}
. "$(dirname "$0")/../lib/netns.sh"
netns_start
DUMP=${FRIODUMP:-$OSTREL_BUILD/bin/friodump}
PROBE=${FRIO_PROBE:-$OSTREL_BUILD/bin/frio_probe}
[ -x "$DUMP" ] && [ -x "$PROBE" ] || { echo "skip: no $DUMP or $PROBE"; exit 77; }
"$PYTHON3" -c 'import socket; socket.socket(44, socket.SOCK_RAW)' 2>/dev/null ||
	{ echo "skip: no AF_XDP"; exit 77; }
netns_pair
A=$NS_A B=$NS_B WORK=$NETNS_TMP

FAILS=0
fail() { echo "FAIL: $*"; FAILS=$((FAILS + 1)); }

# An array, so that a background job's pid is the program's own.
INA=(ip netns exec "$A" env FRIO_BACKEND=$BACKEND)

# py_send NS ADDR PORT COUNT PREFIX [CPU]: datagrams "PREFIX-i" from a kernel
# socket, on CPU if given (transmit packet steering maps it to that queue).
py_send() {
	ip netns exec "$1" "$PYTHON3" -c '
import os, socket, sys
a, p, n, x = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), sys.argv[4]
if sys.argv[5]: os.sched_setaffinity(0, {int(sys.argv[5])})
s = socket.socket(socket.AF_INET6 if ":" in a else socket.AF_INET, socket.SOCK_DGRAM)
for i in range(n): s.sendto(("%s-%d" % (x, i)).encode(), (a, p))' "$2" "$3" "$4" "$5" "${6:-}"
}

# py_recv NS ADDR PORT COUNT OUT: a kernel socket in the background, one
# line per datagram's payload; exit 2 after 10 s quiet.
py_recv() {
	ip netns exec "$1" "$PYTHON3" -c '
import socket, sys
a, p, n = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
s = socket.socket(socket.AF_INET6 if ":" in a else socket.AF_INET, socket.SOCK_DGRAM)
s.bind((a, p)); s.settimeout(10)
print("ready", flush=True)
try:
    for i in range(n): print(s.recv(4096).decode(), flush=True)
except socket.timeout:
    sys.exit(2)' "$2" "$3" "$4" >"$5" 2>&1 &
	LASTPID=$!; NETNS_PIDS+=($LASTPID)
	wait_line "$5" $LASTPID ready
}

# One handle past a queue's limit fails and says why, having closed the others.
case_limit() {
	local out=$WORK/limit.out rc
	ulimit -n 4096
	"${INA[@]}" "$PROBE" open $IF_A $IP4_A 30000 1025 >"$out" 2>&1; rc=$?
	[ $rc = 3 ] && grep -q '^open 1024: .*at most 1024' "$out" ||
		fail "limit: handle 1025: rc $rc: $(head -3 "$out")"
}

# Processes on two queues share the steering program: the second keeps
# receiving when the first (which attached it) is killed, the first's port
# goes back to the kernel, and a new process on its queue takes it again.
case_processes() {
	local p1=$WORK/p1.out p2=$WORK/p2.out p3=$WORK/p3.out k=$WORK/k.out pid1 pid2 prog
	[ "$(nproc)" -ge 2 ] || { echo "skip: processes: one CPU"; return; }
	ip -n "$A" link add vA2 numtxqueues 2 numrxqueues 2 type veth peer name vB2 \
	    netns "$B" numtxqueues 2 numrxqueues 2 || { fail "processes: veth"; return; }
	ip -n "$A" addr add 10.78.0.1/24 dev vA2
	ip -n "$B" addr add 10.78.0.2/24 dev vB2
	ip -n "$A" link set vA2 up
	ip -n "$B" link set vB2 up
	ip netns exec "$B" sh -c 'echo 1 >/sys/class/net/vB2/queues/tx-0/xps_cpus &&
	    echo 2 >/sys/class/net/vB2/queues/tx-1/xps_cpus' || { fail "processes: xps"; return; }
	# Native mode: veth reports the receive queue only there.
	local Q=(ip netns exec "$A" env FRIO_BACKEND=xdp FRIO_XDP_MODE=native)
	"${Q[@]}" FRIO_QUEUE=0 "$DUMP" -n 1 -t 10 vA2 10.78.0.1 9000 >"$p1" 2>&1 &
	pid1=$!; NETNS_PIDS+=($pid1)
	wait_line "$p1" $pid1 listening || { fail "processes: first: $(cat "$p1")"; return; }
	"${Q[@]}" FRIO_QUEUE=1 "$DUMP" -n 2 -t 10 vA2 10.78.0.1 9001 >"$p2" 2>&1 &
	pid2=$!; NETNS_PIDS+=($pid2)
	wait_line "$p2" $pid2 listening || { fail "processes: second: $(cat "$p2")"; return; }
	prog=$(ip -n "$A" link show vA2 | grep -o 'prog/xdp id [0-9]*')
	py_send "$B" 10.78.0.1 9001 1 before 1
	kill -9 $pid1; wait $pid1 2>/dev/null
	py_send "$B" 10.78.0.1 9001 1 after 1
	wait $pid2 && [ "$(grep -c ':9001 len .* "\(before\|after\)-0"' "$p2")" = 2 ] ||
		fail "processes: the second stopped receiving: $(cat "$p2")"
	py_recv "$A" 10.78.0.1 9000 1 "$k" || { fail "processes: receiver"; return; }
	py_send "$B" 10.78.0.1 9000 1 kernel 0
	wait $LASTPID && grep -q '^kernel' "$k" || fail "processes: the dead one's port: $(cat "$k")"
	"${Q[@]}" FRIO_QUEUE=0 "$DUMP" -n 1 -t 10 vA2 10.78.0.1 9000 >"$p3" 2>&1 &
	LASTPID=$!; NETNS_PIDS+=($LASTPID)
	wait_line "$p3" $LASTPID listening || { fail "processes: third: $(cat "$p3")"; return; }
	py_send "$B" 10.78.0.1 9000 1 third 0
	wait $LASTPID && grep -q ':9000 len 7 "third-0"' "$p3" || fail "processes: third: $(cat "$p3")"
	[ -n "$prog" ] && [ "$(ip -n "$A" link show vA2 | grep -o 'prog/xdp id [0-9]*')" = "$prog" ] ||
		fail "processes: the program was replaced ($prog)"
}

for c in limit processes; do
	n=$FAILS; case_$c
	[ $FAILS = $n ] && echo "ok: $BACKEND $c"
done
[ $FAILS = 0 ]
