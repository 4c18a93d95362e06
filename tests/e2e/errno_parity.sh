#!/usr/bin/env bash
# errno as the application sees it, and signal handlers that use a socket
# the interrupted code is using (errno_parity.c): each phase runs on plain
# kernel sockets and preloaded and must print the same.  The preloaded data
# phase passes no datagram through the kernel either way, then runs once
# more with its bypass set-up failing.  Every run has a time limit: a
# handler that waits for a lock its interrupted thread holds never returns.
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_start
PROG=$OSTREL_BUILD/tests/errno_parity
netns_pair
export FRIO_BACKEND=${FRIO_BACKEND:-xdp}
PORT=$((20000 + RANDOM % 20000))

# The peer in A: sends back every datagram that starts with "e".
bg "$NS_A" "$PYTHON3" -c 'import socket, sys
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind((sys.argv[1], int(sys.argv[2])))
while True:
    d, a = s.recvfrom(2048)
    if d.startswith(b"e"):
        s.sendto(d, a)' "$IP4_A" "$PORT"
wait_udp_port "$NS_A" "$PORT"

# phase PHASE [PRELOAD]: the program's output, preloaded when PRELOAD is set.
phase() {
  in_ns "$NS_B" timeout 20 env ${2:+LD_PRELOAD=$2} "$PROG" "$1" "$IP4_B" \
    "$IP4_A" "$PORT" || echo "exit status $?"
}

kernel=$(phase data)
grep -q '^recvfrom again ok$' <<<"$kernel" || fail "data: the kernel run failed:
$kernel"
out0=$(udp_counter "$NS_B" OutDatagrams)
like_kernel "data" "$kernel" phase data
# Only the datagram to the silent neighbour may leave by the kernel.
out0=$(($(udp_counter "$NS_B" OutDatagrams) - out0))
[ "$out0" -le 1 ] || fail "data: $out0 sent through the kernel"
echo "ok: data calls"

# Again while another preloaded process holds the interface's queue: every
# set-up falls back to the kernel, and must leave no trace in errno.
bg "$NS_B" env LD_PRELOAD="$OSTREL_LIB" "$PYTHON3" -c 'import socket, sys, time
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind((sys.argv[1], 0))
print("ready", flush=True)
time.sleep(120)' "$IP4_B" >"$NETNS_TMP/holder" 2>&1
holder=$BG_PID
wait_line "$NETNS_TMP/holder" "$holder" ready || fail "queue holder"
wait_attached "$holder" || fail "queue holder not attached"
ours=$(phase data "$OSTREL_LIB")
[ "$kernel" = "$ours" ] || fail "data, queue held: the kernel said
$kernel
and the preload
$ours"
kill "$holder"
echo "ok: data calls, set-up falling back"

kernel=$(phase process)
grep -q '^system child maps the preload: no$' <<<"$kernel" ||
  fail "process: the kernel run failed:
$kernel"
ours=$(phase process "$OSTREL_LIB")
[ "$kernel" = "$ours" ] || fail "process: the kernel said
$kernel
and the preload
$ours"
echo "ok: process calls"

for ph in signal storm; do
  kernel=$(phase $ph)
  grep -q '^exit status' <<<"$kernel" && fail "$ph: the kernel run failed:
$kernel"
  ours=$(phase $ph "$OSTREL_LIB")
  [ "$kernel" = "$ours" ] || fail "$ph: the kernel said
$kernel
and the preload
$ours"
  echo "ok: signal handlers, $ph"
done
echo "errno_parity: passed ($FRIO_BACKEND)"
