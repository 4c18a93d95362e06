#!/usr/bin/env bash
# What a receiver learns about its queue, compared with the kernel's own
# answers: the same python3 program runs on a plain socket and under the
# preload, and prints what it observes: FIONREAD before and after a
# datagram arrives, recv with MSG_TRUNC into a short buffer (the real
# length), recvmsg's MSG_TRUNC flag, MSG_ERRQUEUE (the kernel socket's),
# readv.  The outputs must match, and the preloaded run must have taken
# its datagrams from the ring (the receiver's kernel counters stay still).
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_start
netns_pair
export FRIO_BACKEND=${FRIO_BACKEND:-xdp}

cat >"$NETNS_TMP/facts.py" <<'PY'
import array, errno, fcntl, os, socket, sys, termios, time
addr, port = sys.argv[1], int(sys.argv[2])
s = socket.socket(socket.AF_INET6 if ":" in addr else socket.AF_INET,
                  socket.SOCK_DGRAM)
s.bind((addr, port))
print("ready", file=sys.stderr, flush=True)
def fionread():
    b = array.array("i", [0])
    fcntl.ioctl(s.fileno(), termios.FIONREAD, b, True)
    return b[0]
def errqueue():
    try:
        s.recv(100, socket.MSG_ERRQUEUE | socket.MSG_DONTWAIT)
        return "data"
    except OSError as e:
        return errno.errorcode[e.errno]
print("empty", fionread(), errqueue())
s.settimeout(5)
buf = bytearray(10)
n = s.recv_into(buf, 10, socket.MSG_TRUNC)   # datagram 0: 300 bytes
print("trunc", n, bytes(buf) == bytes(10))
time.sleep(0.2)
print("queued", fionread())                 # datagram 1: 200 bytes
data, anc, flags, peer = s.recvmsg(50)
print("recvmsg", len(data), flags & socket.MSG_TRUNC != 0)
a, b = bytearray(7), bytearray(100)         # datagram 2: 77 bytes
print("readv", os.readv(s.fileno(), [a, b]), bytes(a + b[:70]) == bytes([2]) * 77)
print("after", fionread())
PY
cat >"$NETNS_TMP/send.py" <<'PY'
import socket, sys, time
addr, port = sys.argv[1], int(sys.argv[2])
s = socket.socket(socket.AF_INET6 if ":" in addr else socket.AF_INET,
                  socket.SOCK_DGRAM)
for i, n in enumerate((300, 200, 77)):
    s.sendto(bytes([i]) * n, (addr, port))
    time.sleep(0.05)
PY

# run DST [PRELOAD]: the observations, one line each.
run() {
  local dst=$1 pre=${2:-} port pid
  port=$((20000 + RANDOM % 20000))
  bg "$NS_B" env ${pre:+LD_PRELOAD=$pre} "$PYTHON3" "$NETNS_TMP/facts.py" \
    "$dst" "$port" >"$NETNS_TMP/out" 2>"$NETNS_TMP/err"
  pid=$BG_PID
  wait_line "$NETNS_TMP/err" "$pid" ready || fail "receiver: $(cat "$NETNS_TMP/err")"
  in_ns "$NS_A" "$PYTHON3" "$NETNS_TMP/send.py" "$dst" "$port"
  wait "$pid" || fail "receiver $dst: $(cat "$NETNS_TMP/err")"
  cat "$NETNS_TMP/out"
}

for dst in "$IP4_B" "$IP6_B"; do
  oracle "$dst" run "$dst"
  echo "ok: queue facts as the kernel's, $dst"
done
echo "queue_facts: passed ($FRIO_BACKEND)"
