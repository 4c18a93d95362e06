#!/bin/bash
# frio_backend.sh xdp|packet: one real libfrio backend on a veth pair
# between two network namespaces that this script makes and removes.  The
# handles live in namespace A; namespace B has only ordinary kernel
# sockets.  Evidence comes from outside the library: what kernel sockets
# receive and the UDP counters of /proc/net/snmp{,6}.
#
# Needs root.  Exit 77: skipped.  FRIODUMP, FRIO_PROBE: the programs.
set -u

BACKEND=${1:?usage: $0 xdp|packet}
BIN=$(dirname "$0")/../../build/bin
DUMP=${FRIODUMP:-$BIN/friodump}
PROBE=${FRIO_PROBE:-$BIN/frio_probe}
[ "$(id -u)" = 0 ] || { echo "skip: not root"; exit 77; }
[ -x "$DUMP" ] && [ -x "$PROBE" ] || { echo "skip: no $DUMP or $PROBE"; exit 77; }
command -v python3 >/dev/null || { echo "skip: no python3"; exit 77; }
if [ "$BACKEND" = xdp ]; then
	python3 -c 'import socket; socket.socket(44, socket.SOCK_RAW)' 2>/dev/null ||
		{ echo "skip: no AF_XDP in this kernel"; exit 77; }
fi

A=frioa$$
B=friob$$
WORK=$(mktemp -d)
PIDS=()
cleanup() {
	for p in "${PIDS[@]}"; do kill -9 "$p" 2>/dev/null; done
	wait 2>/dev/null
	ip netns del "$A" 2>/dev/null
	ip netns del "$B" 2>/dev/null
	rm -rf "$WORK"
}
trap cleanup EXIT

FAILS=0
fail() { echo "FAIL: $*"; FAILS=$((FAILS + 1)); }
pass() { echo "ok: $*"; }

ip netns add "$A" && ip netns add "$B" || { echo "skip: no netns"; exit 77; }
ip -n "$A" link add vA type veth peer name vB netns "$B" || exit 1
# A second pair with two queues, for the transmit-ring test.
ip -n "$A" link add vQ numtxqueues 2 numrxqueues 2 type veth \
	peer name vR numtxqueues 2 numrxqueues 2 netns "$B" || exit 1
ip -n "$A" addr add 10.77.0.1/24 dev vA
ip -n "$B" addr add 10.77.0.2/24 dev vB
ip -n "$A" addr add fd77::1/64 dev vA nodad
ip -n "$B" addr add fd77::2/64 dev vB nodad
ip -n "$A" addr add 10.77.1.1/24 dev vQ
ip -n "$B" addr add 10.77.1.2/24 dev vR
# A third, for two processes on two interfaces.
ip -n "$A" link add vC type veth peer name vD netns "$B" || exit 1
ip -n "$A" addr add 10.77.2.1/24 dev vC
ip -n "$B" addr add 10.77.2.2/24 dev vD
for ns in "$A" "$B"; do ip -n "$ns" link set lo up; done
for l in vA vQ vC; do ip -n "$A" link set $l up; done
for l in vB vR vD; do ip -n "$B" link set $l up; done
MAC_B=$(ip -n "$B" -br link show vB | awk '{print $3}')
MAC_R=$(ip -n "$B" -br link show vR | awk '{print $3}')

# Arrays, not functions: a background job is then the program itself, and
# its pid is the one to kill.
INA=(ip netns exec "$A" env FRIO_BACKEND=$BACKEND)

# wait_for FILE PID WORD: until FILE has a line starting with WORD, or PID
# is gone.
wait_for() {
	for _ in $(seq 100); do
		grep -q "^$3" "$1" 2>/dev/null && return 0
		kill -0 "$2" 2>/dev/null || return 1
		sleep 0.05
	done
	return 1
}

# dump_bg OUT ARGS...: friodump in A in the background, until listening.
dump_bg() {
	local out=$1; shift
	"${INA[@]}" "$DUMP" "$@" >"$out" 2>&1 &
	LASTPID=$!; PIDS+=($LASTPID)
	wait_for "$out" $LASTPID listening
}

# udp NS FIELD...: the sum of those counters of the namespace's UDP MIBs.
udp() {
	local ns=$1; shift
	ip netns exec "$ns" awk -v want=" $* " '
	    /^Udp:/ { if (!h) { split($0, n); h = 1 } else
		for (i = 2; i <= NF; i++) if (index(want, " " n[i] " ")) s += $i }
	    /^Udp6/ { f = substr($1, 5); if (index(want, " " f " ")) s += $2 }
	    END { print s + 0 }' /proc/net/snmp /proc/net/snmp6
}
udp_in() { udp "$1" InDatagrams NoPorts InErrors InCsumErrors; }

# py_send NS ADDR PORT COUNT PREFIX: datagrams "PREFIX-i" from a kernel socket.
py_send() {
	ip netns exec "$1" python3 - "$2" "$3" "$4" "$5" <<'EOF'
import socket, sys
addr, port, n, pfx = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), sys.argv[4]
s = socket.socket(socket.AF_INET6 if ':' in addr else socket.AF_INET, socket.SOCK_DGRAM)
for i in range(n):
    s.sendto(('%s-%d' % (pfx, i)).encode(), (addr, port))
EOF
}

# py_recv NS ADDR PORT COUNT OUT [LEN]: a kernel socket in the background;
# prints ready, then one line per datagram (its payload, or with LEN its
# length and whether it is friodump's pattern); exits 2 after 3 s quiet.
py_recv() {
	ip netns exec "$1" python3 - "$2" "$3" "$4" "${6:--1}" >"$5" 2>&1 <<'EOF' &
import socket, sys
addr, port, n, plen = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4])
s = socket.socket(socket.AF_INET6 if ':' in addr else socket.AF_INET, socket.SOCK_DGRAM)
s.setsockopt(socket.SOL_SOCKET, 33, 1 << 22)  # SO_RCVBUFFORCE
s.bind((addr, port))
s.settimeout(3)
print('ready', flush=True)
def pattern(i):
    head = b'tx-%d ' % i
    return bytes(head[j] if j < len(head) else 97 + j % 26 for j in range(plen))
try:
    for i in range(n):
        d = s.recv(4096)
        if plen < 0:
            print(d.decode(), flush=True)
        else:
            print('len %d %s' % (len(d), 'ok' if d == pattern(i) else 'BAD'), flush=True)
except socket.timeout:
    sys.exit(2)
EOF
	LASTPID=$!; PIDS+=($LASTPID)
	wait_for "$5" $LASTPID ready
}

# py_ping NS ADDR: one ICMP echo and its reply.
py_ping() {
	ip netns exec "$1" python3 - "$2" <<'EOF'
import socket, struct, sys
addr = sys.argv[1]
v6 = ':' in addr
if v6:
    s = socket.socket(socket.AF_INET6, socket.SOCK_RAW, socket.IPPROTO_ICMPV6)
    req, rep = 128, 129
else:
    s = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)
    req, rep = 8, 0
def csum(b):
    t = sum(struct.unpack('!%dH' % (len(b) // 2), b))
    t = (t & 0xffff) + (t >> 16); t += t >> 16
    return ~t & 0xffff
msg = struct.pack('!BBHHH', req, 0, 0, 0x4242, 1) + b'frio-ping'
if not v6:
    msg = msg[:2] + struct.pack('!H', csum(msg + b'\0')) + msg[4:]
s.settimeout(3)
s.sendto(msg, (addr, 0))
while True:
    d = s.recv(2048)
    if not v6:
        d = d[(d[0] & 15) * 4:]
    if d[0] == rep and d[4:6] == b'\x42\x42':
        sys.exit(0)
EOF
}

xdp_attached() { ip -n "$A" link show vA | grep -q 'prog/xdp'; }

# Frames a handle sends reach a kernel socket in B with checksums that the
# kernel accepts, at the smallest and largest sizes.
case_transmit() {
	local out=$WORK/tx.out src dst len before after errs
	for fam in 4 6; do
		if [ $fam = 4 ]; then src=10.77.0.1 dst=10.77.0.2 max=1472
		else src=fd77::1 dst=fd77::2 max=1452; fi
		for len in 0 1 $max; do
			before=$(udp "$B" InDatagrams)
			errs=$(udp "$B" InErrors InCsumErrors)
			py_recv "$B" $dst 4001 5 "$out" $len || { fail "tx: receiver"; continue; }
			"${INA[@]}" "$DUMP" -s -n 5 -l $len vA $src $dst "$MAC_B" 4000 4001 >/dev/null 2>"$out.err" ||
				fail "tx IPv$fam $len bytes: $(cat "$out.err")"
			wait $LASTPID
			after=$(udp "$B" InDatagrams)
			if [ "$(grep -c "^len $len ok" "$out")" != 5 ]; then
				fail "tx IPv$fam $len bytes: $(head -3 "$out")"
			elif [ $((after - before)) != 5 ] || [ "$(udp "$B" InErrors InCsumErrors)" != "$errs" ]; then
				fail "tx IPv$fam $len bytes: B's UDP counters: in $before -> $after, errors $errs -> $(udp "$B" InErrors InCsumErrors)"
			fi
		done
	done
	pass "tx: IPv4 and IPv6, payloads 0, 1 and the largest, reach B's kernel socket intact"
	# The receiver does check: a checksum left incomplete is dropped.
	errs=$(udp "$B" InCsumErrors)
	"${INA[@]}" "$PROBE" badsum vA fd77::1 fd77::2 "$MAC_B" 4001 &&
		sleep 0.2 && [ "$(udp "$B" InCsumErrors)" = $((errs + 1)) ] &&
		pass "tx: B's kernel drops a datagram whose checksum was not completed" ||
		fail "tx: B's kernel did not count an incomplete checksum ($errs -> $(udp "$B" InCsumErrors))"
}

# Datagrams that match a handle's filters reach it, on both filters of one
# handle; with xdp, A's UDP layer never sees them.
case_receive() {
	local out=$WORK/rx.out before after
	dump_bg "$out" -n 6 -t 5 vA 10.77.0.1,fd77::1 5000 ||
		{ fail "rx: friodump: $(cat "$out")"; return; }
	before=$(udp_in "$A")
	py_send "$B" 10.77.0.1 5000 3 four
	py_send "$B" fd77::1 5000 3 six
	wait $LASTPID; local rc=$?
	after=$(udp_in "$A")
	if [ $rc != 0 ] || [ "$(grep -c ':5000 len 6 "four-' "$out")" != 3 ] ||
	    [ "$(grep -c ':5000 len 5 "six-' "$out")" != 3 ]; then
		fail "rx: rc $rc: $(cat "$out")"
	elif [ $BACKEND = xdp ] && [ "$before" != "$after" ]; then
		fail "rx: A's UDP counters moved ($before -> $after): not bypassed"
	else
		pass "rx: both filters of one handle deliver$([ $BACKEND = xdp ] && echo ", A's UDP layer untouched")"
	fi
}

# With a handle open: other ports go to A's kernel sockets and never to the
# handle; ARP, neighbour discovery, ping and TCP to the handle's port work.
case_others() {
	local hold=$WORK/hold.out out=$WORK/other.out
	dump_bg "$hold" vA 10.77.0.1,fd77::1 6000 || { fail "others: $(cat "$hold")"; return; }
	local hpid=$LASTPID
	for addr in 10.77.0.1 fd77::1; do
		py_recv "$A" $addr 6001 3 "$out" || { fail "others: receiver"; continue; }
		py_send "$B" $addr 6001 3 k
		wait $LASTPID && [ "$(grep -c '^k-' "$out")" = 3 ] ||
			fail "other port $addr: $(cat "$out")"
	done
	ip -n "$B" neigh flush dev vB
	py_ping "$B" 10.77.0.1 && py_ping "$B" fd77::1 &&
	    ip -n "$B" neigh show dev vB | grep -q '10.77.0.1 .*lladdr' &&
	    ip -n "$B" neigh show dev vB | grep -q 'fd77::1 .*lladdr' ||
		fail "ARP/ND/ping with a handle open"
	ip netns exec "$A" python3 - >"$out" 2>&1 <<'EOF' &
import socket
s = socket.socket(socket.AF_INET6, socket.SOCK_STREAM)
s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind(('::', 6000)); s.listen(4); s.settimeout(5)
print('ready', flush=True)
for _ in range(2):
    c, _a = s.accept(); c.sendall(c.recv(64).upper()); c.close()
EOF
	local tpid=$!; PIDS+=($tpid)
	wait_for "$out" $tpid ready || fail "tcp listener"
	for a in 10.77.0.1 fd77::1; do
		[ "$(ip netns exec "$B" python3 -c "import socket; c = socket.create_connection(('$a', 6000), 3); c.sendall(b'tcp'); print(c.recv(64).decode())" 2>&1)" = TCP ] ||
			fail "TCP to $a:6000 with a handle on UDP 6000"
	done
	wait $tpid
	kill $hpid; wait $hpid
	grep -q ' len ' "$hold" && fail "others: the handle got datagrams not for it: $(cat "$hold")"
	pass "others: other ports, ARP, ND, ping and TCP stay with the kernel"
}

# Two handles of one process each see only their own port; a filter that
# one handle holds is refused to the other.
case_two_handles() {
	local out=$WORK/two.out
	dump_bg "$out" -H -n 4 -t 5 vA 10.77.0.1 7001,7002 || { fail "two handles: $(cat "$out")"; return; }
	py_send "$B" 10.77.0.1 7001 4 one
	py_send "$B" 10.77.0.1 7002 4 two
	wait $LASTPID; local rc=$?
	[ $rc = 0 ] && [ "$(grep -c '^h0 .*:7001 len 5 "one-' "$out")" = 4 ] &&
	    [ "$(grep -c '^h1 .*:7002 len 5 "two-' "$out")" = 4 ] &&
	    [ "$(grep -c '^h' "$out")" = 8 ] &&
		pass "two handles: each sees only its own port" ||
		fail "two handles: rc $rc: $(cat "$out")"
	"${INA[@]}" "$DUMP" -H -t 1 vA 10.77.0.1 7003,7003 >"$out" 2>&1
	rc=$?
	[ $rc = 3 ] && grep -q 'another handle already receives' "$out" &&
		pass "two handles: the second one's filter for a held port is refused" ||
		fail "duplicate filter: rc $rc: $(cat "$out")"
}

# Two processes, each with a handle on its own interface.
case_two_interfaces() {
	local o1=$WORK/if1.out o2=$WORK/if2.out p1 p2
	dump_bg "$o1" -n 3 -t 5 vA 10.77.0.1 9000 || { fail "two interfaces: $(cat "$o1")"; return; }
	p1=$LASTPID
	dump_bg "$o2" -n 3 -t 5 vC 10.77.2.1 9000 || { fail "two interfaces: $(cat "$o2")"; return; }
	p2=$LASTPID
	py_send "$B" 10.77.0.1 9000 3 first
	py_send "$B" 10.77.2.1 9000 3 second
	wait $p1 && wait $p2 && [ "$(grep -c '"first-' "$o1")" = 3 ] &&
	    [ "$(grep -c '"second-' "$o2")" = 3 ] &&
		pass "two processes on two interfaces each get their own" ||
		fail "two interfaces: $(cat "$o1" "$o2")"
}

# kill -9 of a process with handles open gives the kernel its datagrams.
case_killed() {
	local hold=$WORK/killed.out out=$WORK/after.out
	dump_bg "$hold" -H vA 10.77.0.1 8000,8001 || { fail "killed: $(cat "$hold")"; return; }
	local hpid=$LASTPID
	if [ $BACKEND = xdp ]; then
		# While it lives, another process cannot have the queue.
		"${INA[@]}" "$DUMP" -t 1 vA 10.77.0.1 8002 >"$out" 2>&1
		[ $? = 3 ] && grep -q 'queue busy' "$out" ||
			fail "second process on a held queue: $(cat "$out")"
	fi
	kill -9 $hpid; wait $hpid 2>/dev/null
	[ $BACKEND = xdp ] && xdp_attached && fail "killed: the steering program outlived its process"
	py_recv "$A" 10.77.0.1 8000 3 "$out" || { fail "killed: receiver"; return; }
	py_send "$B" 10.77.0.1 8000 3 back
	wait $LASTPID && [ "$(grep -c '^back-' "$out")" = 3 ] &&
		pass "killed: after kill -9 the kernel socket gets the port again" ||
		fail "killed: black hole after kill -9: $(cat "$out")"
}

# The transmit ring fills while the kernel cannot send from the handle's
# queue, and drains once it can.
case_nomem() {
	local out=$WORK/nomem.out n
	if [ $BACKEND != xdp ]; then
		echo "note: nomem: the packet backend sends inside sendto(), so no ring can fill on veth"
		return
	fi
	py_recv "$B" 10.77.1.2 4100 5000 "$out" || { fail "nomem: receiver"; return; }
	"${INA[@]}" FRIO_QUEUE=1 "$PROBE" nomem vQ 10.77.1.1 10.77.1.2 "$MAC_R" 4100 >"$out.probe" 2>&1 ||
		{ fail "nomem: $(cat "$out.probe")"; return; }
	wait $LASTPID
	n=$(sed -n 's/.*; \([0-9]*\) datagrams in all/\1/p' "$out.probe")
	[ -n "$n" ] && [ "$(grep -c '^nomem' "$out")" = "$n" ] &&
		pass "nomem: $(head -1 "$out.probe"), all $n arrive once the ring drains" ||
		fail "nomem: $(cat "$out.probe"); B got $(grep -c '^nomem' "$out")"
}

# Opening fails with its own status and leaves nothing open.
case_open_fails() {
	local out=$WORK/open.out
	"${INA[@]}" "$PROBE" openfail nosuch0 >"$out" 2>&1 &&
	    grep -q "^status 4: interface not found" "$out" ||
		fail "open of a missing interface: $(cat "$out")"
	if command -v setpriv >/dev/null && setpriv --reuid=nobody true 2>/dev/null &&
	    setpriv --reuid=nobody test -x "$PROBE"; then
		"${INA[@]}" setpriv --reuid=nobody --regid=nogroup --clear-groups \
		    --inh-caps=-all --bounding-set=-all "$PROBE" openfail vA >"$out" 2>&1 &&
		    grep -q "^status 7: .*CAP_NET_RAW" "$out" ||
			fail "open without privileges: $(cat "$out")"
	else
		echo "note: open without privileges not tried (no setpriv, or the probe is not executable by nobody)"
	fi
	pass "open: a missing interface and a missing privilege fail with their status, nothing leaked"
	"${INA[@]}" "$PROBE" cloexec vA >"$out" 2>&1 ||
		fail "a handle's descriptor survives exec: $(cat "$out")"
}

echo "== backend $BACKEND"
case_transmit
case_receive
case_others
case_two_handles
case_two_interfaces
case_killed
case_nomem
case_open_fails
if [ $BACKEND = xdp ]; then
	FRIO_XDP_MODE=native case_receive
	xdp_attached && fail "the steering program stayed after the last handle closed"
fi
echo "$FAILS failure(s)"
[ $FAILS = 0 ]
