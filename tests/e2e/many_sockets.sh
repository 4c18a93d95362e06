#!/usr/bin/env bash
# 1,000 preloaded UDP sockets in one poll each get their 3 datagrams
# intact; closed from 50 threads (a frame socket's release takes the kernel
# 10-25 ms).  Both backends.
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_test
N=1000 PER=3
ulimit -n 4096

cat >"$NETNS_TMP/many.py" <<'PY'
import concurrent.futures, select, socket, struct, sys, time
mode, addr, base, n, per = sys.argv[1], sys.argv[2], *map(int, sys.argv[3:6])
def payload(port, j):
    return struct.pack("!HH", port, j) + bytes((port + j + k) & 255 for k in range(60))
if mode == "send":
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    for j in range(per):
        for port in range(base, base + n):
            s.sendto(payload(port, j), (addr, port))
            time.sleep(0.0001)
    sys.exit(0)
socks, poll = {}, select.poll()
T0 = time.monotonic()
for port in range(base, base + n):
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.bind((addr, port))
    socks[s.fileno()] = (s, port, set())
    poll.register(s, select.POLLIN)
print("ready %.1f s" % (time.monotonic() - T0), flush=True)
got = 0
while got < n * per:
    ready = poll.poll(3000)
    if not ready:
        break
    for fd, _ in ready:
        s, port, seen = socks[fd]
        try:
            data = s.recv(65536, socket.MSG_DONTWAIT)
        except BlockingIOError:
            continue
        j = struct.unpack("!HH", data[:4])[1]
        if data != payload(port, j) or j in seen:
            sys.exit("port %d: wrong datagram %r" % (port, data[:4]))
        seen.add(j)
        got += 1
def bypass(s):
    try:
        return s.getsockopt(socket.SOL_SOCKET, 0x101b, 64) and 1
    except OSError:
        return 0
print("got %d of %d in %.1f s, %d sockets on the bypass" % (got, n * per, time.monotonic() - T0,
      sum(bypass(s) for s, _, _ in socks.values())), flush=True)
with concurrent.futures.ThreadPoolExecutor(50) as pool:
    list(pool.map(lambda t: t[0].close(), socks.values()))
print("closed in %.1f s" % (time.monotonic() - T0), flush=True)
sys.exit(got != n * per)
PY

for backend in xdp packet; do
  base=$((20000 + RANDOM % 30000))
  t0=$SECONDS
  bg "$NS_B" env LD_PRELOAD="$OSTREL_LIB" FRIO_BACKEND=$backend "$PYTHON3" \
    "$NETNS_TMP/many.py" recv "$IP4_B" "$base" "$N" "$PER" >"$NETNS_TMP/out" 2>&1
  pid=$BG_PID
  for i in $(seq 60); do wait_line "$NETNS_TMP/out" "$pid" ready && break; done
  grep -q ready "$NETNS_TMP/out" || fail "$backend: receiver: $(cat "$NETNS_TMP/out")"
  in0=$(udp_counter "$NS_B" InDatagrams)
  in_ns "$NS_A" "$PYTHON3" "$NETNS_TMP/many.py" send "$IP4_B" "$base" "$N" "$PER"
  wait "$pid" || fail "$backend: $(cat "$NETNS_TMP/out")"
  echo "ok: $backend: $(tr '\n' ' ' <"$NETNS_TMP/out"), $(($(udp_counter "$NS_B" InDatagrams) - in0)) through the kernel, $((SECONDS - t0)) s"
done
echo "many_sockets: passed"
