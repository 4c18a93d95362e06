#!/bin/bash
# frio_backend.sh xdp|packet: one real libfrio backend on a veth pair between
# two namespaces.  Handles live in A; B has only kernel sockets.  Needs root;
# exit 77 means skipped.  FRIODUMP, FRIO_PROBE: the programs.
set -u

BACKEND=${1:?usage: $0 xdp|packet}
. "$(dirname "$0")/../lib/netns.sh"
netns_start
DUMP=${FRIODUMP:-$OSTREL_BUILD/bin/friodump}
PROBE=${FRIO_PROBE:-$OSTREL_BUILD/bin/frio_probe}
[ -x "$DUMP" ] && [ -x "$PROBE" ] || { echo "skip: no $DUMP or $PROBE"; exit 77; }
if [ "$BACKEND" = xdp ]; then
	"$PYTHON3" -c 'import socket; socket.socket(44, socket.SOCK_RAW)' 2>/dev/null ||
		{ echo "skip: no AF_XDP"; exit 77; }
fi
netns_pair
A=$NS_A B=$NS_B WORK=$NETNS_TMP
# No static neighbours: ARP and neighbour discovery must work beside a handle.
ip -n "$A" neigh flush dev "$IF_A" nud permanent
ip -n "$B" neigh flush dev "$IF_B" nud permanent

FAILS=0
fail() { echo "FAIL: $*"; FAILS=$((FAILS + 1)); }

# An array, so that a background job's pid is the program's own.
INA=(ip netns exec "$A" env FRIO_BACKEND=$BACKEND)

dump_bg() {
	local out=$1; shift
	"${INA[@]}" "$DUMP" "$@" >"$out" 2>&1 &
	LASTPID=$!; NETNS_PIDS+=($LASTPID)
	wait_line "$out" $LASTPID listening
}

# py_send NS ADDR PORT COUNT PREFIX: datagrams "PREFIX-i" from a kernel socket.
py_send() {
	ip netns exec "$1" "$PYTHON3" -c '
import socket, sys
a, p, n, x = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), sys.argv[4]
s = socket.socket(socket.AF_INET6 if ":" in a else socket.AF_INET, socket.SOCK_DGRAM)
for i in range(n): s.sendto(("%s-%d" % (x, i)).encode(), (a, p))' "$2" "$3" "$4" "$5"
}

# py_recv NS ADDR PORT COUNT OUT [LEN]: a kernel socket in the background;
# one line per datagram, its payload or with LEN whether it is friodump's
# pattern of that length; exit 2 after 10 s quiet (a sender that starts
# after it may first wait for the queue a process before it held).
py_recv() {
	ip netns exec "$1" "$PYTHON3" -c '
import socket, sys
a, p, n, plen = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4])
s = socket.socket(socket.AF_INET6 if ":" in a else socket.AF_INET, socket.SOCK_DGRAM)
s.setsockopt(socket.SOL_SOCKET, 33, 1 << 22)
s.bind((a, p)); s.settimeout(10)
print("ready", flush=True)
def pat(i):
    h = b"tx-%d " % i
    return bytes(h[j] if j < len(h) else 97 + j % 26 for j in range(plen))
try:
    for i in range(n):
        d = s.recv(4096)
        print(d.decode() if plen < 0 else "len %d %s" % (len(d), "ok" if d == pat(i) else "BAD"), flush=True)
except socket.timeout:
    sys.exit(2)' "$2" "$3" "$4" "${6:--1}" >"$5" 2>&1 &
	LASTPID=$!; NETNS_PIDS+=($LASTPID)
	wait_line "$5" $LASTPID ready
}

# py_ping NS ADDR: one ICMP or ICMPv6 echo and its reply.
py_ping() {
	ip netns exec "$1" "$PYTHON3" -c '
import socket, struct, sys
a = sys.argv[1]; v6 = ":" in a
s = socket.socket(socket.AF_INET6 if v6 else socket.AF_INET, socket.SOCK_RAW, 58 if v6 else 1)
m = struct.pack("!BBHHH", 128 if v6 else 8, 0, 0, 0x4242, 1) + b"frio-ping!"
t = sum(struct.unpack("!9H", m))
t = (t & 0xffff) + (t >> 16)
if not v6: m = m[:2] + struct.pack("!H", ~(t + (t >> 16)) & 0xffff) + m[4:]
s.settimeout(3); s.sendto(m, (a, 0))
while True:
    d = s.recv(2048)
    d = d if v6 else d[(d[0] & 15) * 4:]
    if d[0] == (129 if v6 else 0) and d[4:6] == b"\x42\x42": break' "$2"
}

# Sent frames reach B's kernel socket, its UDP layer counting no error.
case_transmit() {
	local out=$WORK/tx.out src dst max len errs
	for fam in 4 6; do
		if [ $fam = 4 ]; then src=$IP4_A dst=$IP4_B max=1472
		else src=$IP6_A dst=$IP6_B max=1452; fi
		for len in 0 1 $max; do
			errs=$(udp_counter "$B" InErrors InCsumErrors)
			py_recv "$B" $dst 4001 5 "$out" $len || { fail "tx: receiver"; continue; }
			"${INA[@]}" "$DUMP" -s -n 5 -l $len $IF_A $src $dst "$MAC_B" 4000 4001 >/dev/null 2>"$out.err" ||
				fail "tx IPv$fam $len: $(cat "$out.err")"
			wait $LASTPID
			[ "$(grep -c "^len $len ok" "$out")" = 5 ] &&
			    [ "$(udp_counter "$B" InErrors InCsumErrors)" = "$errs" ] ||
				fail "tx IPv$fam $len bytes: $(head -3 "$out")"
		done
	done
}

# Matching datagrams reach the handle on both its filters; with xdp, A's
# UDP layer never sees them.
case_receive() {
	local out=$WORK/rx.out before rc
	dump_bg "$out" -n 6 -t 5 $IF_A $IP4_A,$IP6_A 5000 || { fail "rx: $(cat "$out")"; return; }
	before=$(udp_counter "$A" InDatagrams NoPorts InErrors)
	py_send "$B" $IP4_A 5000 3 four
	py_send "$B" $IP6_A 5000 3 six
	wait $LASTPID; rc=$?
	[ $rc = 0 ] && [ "$(grep -c ':5000 len 6 "four-' "$out")" = 3 ] &&
	    [ "$(grep -c ':5000 len 5 "six-' "$out")" = 3 ] || fail "rx: rc $rc: $(cat "$out")"
	[ $BACKEND = xdp ] && [ "$before" != "$(udp_counter "$A" InDatagrams NoPorts InErrors)" ] &&
		fail "rx: A's UDP layer saw the handle's datagrams"
}

# With a handle open, other ports stay with A's kernel sockets and never
# reach the handle; ARP, neighbour discovery and ping work.
case_others() {
	local hold=$WORK/hold.out out=$WORK/other.out hpid
	dump_bg "$hold" $IF_A $IP4_A,$IP6_A 6000 || { fail "others: $(cat "$hold")"; return; }
	hpid=$LASTPID
	for addr in $IP4_A $IP6_A; do
		py_recv "$A" $addr 6001 3 "$out" || { fail "others: receiver"; continue; }
		py_send "$B" $addr 6001 3 k
		wait $LASTPID && [ "$(grep -c '^k-' "$out")" = 3 ] || fail "other port $addr: $(cat "$out")"
	done
	ip -n "$B" neigh flush dev $IF_B
	for addr in $IP4_A $IP6_A; do
		py_ping "$B" $addr &&
		    ip -n "$B" neigh show dev $IF_B | grep -q "^$addr .*lladdr" ||
			fail "ARP/ND/ping to $addr with a handle open"
	done
	kill $hpid; wait $hpid
	grep -q ' len ' "$hold" && fail "others: the handle got datagrams not for it: $(cat "$hold")"
}

# Two handles each see only their own port; a held filter is refused.
case_two_handles() {
	local out=$WORK/two.out rc
	dump_bg "$out" -H -n 4 -t 5 $IF_A $IP4_A 7001,7002 || { fail "two handles: $(cat "$out")"; return; }
	py_send "$B" $IP4_A 7001 4 one
	py_send "$B" $IP4_A 7002 4 two
	wait $LASTPID; rc=$?
	[ $rc = 0 ] && [ "$(grep -c '^h0 .*:7001 len 5 "one-' "$out")" = 4 ] &&
	    [ "$(grep -c '^h1 .*:7002 len 5 "two-' "$out")" = 4 ] &&
	    [ "$(grep -c '^h' "$out")" = 8 ] || fail "two handles: rc $rc: $(cat "$out")"
	"${INA[@]}" "$DUMP" -H -t 1 $IF_A $IP4_A 7003,7003 >"$out" 2>&1; rc=$?
	[ $rc = 3 ] && grep -q 'another handle already receives' "$out" ||
		fail "duplicate filter: rc $rc: $(cat "$out")"
}

# kill -9 of a process with handles open gives the kernel its traffic back;
# with xdp the steering program stays attached for the next process.
case_killed() {
	local hold=$WORK/killed.out out=$WORK/after.out
	dump_bg "$hold" -H $IF_A $IP4_A 8000,8001 || { fail "killed: $(cat "$hold")"; return; }
	kill -9 $LASTPID; wait $LASTPID 2>/dev/null
	[ $BACKEND = xdp ] && ! ip -n "$A" link show $IF_A | grep -q 'prog/xdp' &&
		fail "killed: the steering program went with its process"
	py_recv "$A" $IP4_A 8000 3 "$out" || { fail "killed: receiver"; return; }
	py_send "$B" $IP4_A 8000 3 back
	wait $LASTPID && [ "$(grep -c '^back-' "$out")" = 3 ] || fail "killed: black hole: $(cat "$out")"
}

# Many handles in one process, a port each: every datagram reaches the
# handle of its own port, once; with xdp, one handle past the limit fails
# and says why.
case_many() {
	local out=$WORK/many.out n=200 rc
	ulimit -n 4096
	"${INA[@]}" "$PROBE" many $IF_A $IP4_A 20000 $n 10 >"$out" 2>&1 &
	LASTPID=$!; NETNS_PIDS+=($LASTPID)
	wait_line "$out" $LASTPID ready || { fail "many: $(head -3 "$out")"; return; }
	ip netns exec "$B" "$PYTHON3" -c '
import socket, sys
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
for i in range(int(sys.argv[1])): s.sendto(b"many-%d" % i, (sys.argv[2], 20000 + i))' $n $IP4_A
	wait $LASTPID; rc=$?
	[ $rc = 0 ] && grep -q "^ok $n" "$out" || fail "many: rc $rc: $(head -5 "$out")"
	[ $BACKEND = xdp ] || return
	"${INA[@]}" "$PROBE" many $IF_A $IP4_A 30000 1025 1 >"$out" 2>&1; rc=$?
	[ $rc = 3 ] && grep -q '^open 1024: .*at most 1024' "$out" ||
		fail "many: handle 1025: rc $rc: $(head -3 "$out")"
}

# py_send_cpu NS CPU ADDR PORT PREFIX: one datagram from a fresh socket on
# CPU, which transmit packet steering maps to the queue of that number.
py_send_cpu() {
	ip netns exec "$1" "$PYTHON3" -c '
import os, socket, sys
os.sched_setaffinity(0, {int(sys.argv[1])})
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.sendto(sys.argv[4].encode(), (sys.argv[2], int(sys.argv[3])))' "$2" "$3" "$4" "$5"
}

# Processes on two queues of one interface share the steering program:
# the second keeps receiving when the first (which attached it) is killed,
# the first one's port goes back to the kernel, and a process started on
# the first queue again takes its traffic, all under the same program.
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
	py_send_cpu "$B" 1 10.78.0.1 9001 before
	kill -9 $pid1; wait $pid1 2>/dev/null
	py_send_cpu "$B" 1 10.78.0.1 9001 after
	wait $pid2 && [ "$(grep -c ':9001 len .* "\(before\|after\)"' "$p2")" = 2 ] ||
		fail "processes: the second stopped receiving: $(cat "$p2")"
	py_recv "$A" 10.78.0.1 9000 1 "$k" || { fail "processes: receiver"; return; }
	py_send_cpu "$B" 0 10.78.0.1 9000 kernel
	wait $LASTPID && grep -q '^kernel' "$k" || fail "processes: the dead one's port: $(cat "$k")"
	"${Q[@]}" FRIO_QUEUE=0 "$DUMP" -n 1 -t 10 vA2 10.78.0.1 9000 >"$p3" 2>&1 &
	LASTPID=$!; NETNS_PIDS+=($LASTPID)
	wait_line "$p3" $LASTPID listening || { fail "processes: third: $(cat "$p3")"; return; }
	py_send_cpu "$B" 0 10.78.0.1 9000 third
	wait $LASTPID && grep -q ':9000 len 5 "third"' "$p3" || fail "processes: third: $(cat "$p3")"
	[ -n "$prog" ] && [ "$(ip -n "$A" link show vA2 | grep -o 'prog/xdp id [0-9]*')" = "$prog" ] ||
		fail "processes: the program was replaced ($prog)"
}

# Opening a missing interface or without privilege fails, leaking nothing.
case_open_fails() {
	local out=$WORK/open.out
	"${INA[@]}" "$PROBE" openfail nosuch0 >"$out" 2>&1 &&
	    grep -q "^status 4: interface not found" "$out" || fail "open of a missing interface: $(cat "$out")"
	"${INA[@]}" setpriv --reuid=nobody --regid=nogroup --clear-groups \
	    --inh-caps=-all --bounding-set=-all "$PROBE" openfail $IF_A >"$out" 2>&1 &&
	    grep -q "^status 7: .*CAP_NET_RAW" "$out" || fail "open without privileges: $(cat "$out")"
}

CASES="transmit receive others two_handles killed many open_fails"
[ "$BACKEND" = xdp ] && CASES="$CASES processes"
for c in $CASES; do
	n=$FAILS; case_$c
	[ $FAILS = $n ] && echo "ok: $BACKEND $c"
done
[ $FAILS = 0 ]
