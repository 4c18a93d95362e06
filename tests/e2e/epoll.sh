#!/usr/bin/env bash
# epoll over a bypass socket prints what it does on a plain one (level- and
# edge-triggered, one-shot, nested), its datagrams from the ring; then
# asyncio, node and sockperf (epoll multiplexer) echo through the bypass.
set -euo pipefail
. "$(dirname "$0")/../lib/netns.sh"
netns_test
export FRIO_BACKEND=${FRIO_BACKEND:-xdp}

cat >"$NETNS_TMP/ep.py" <<'PY'
import select, socket, sys, time
addr, port = sys.argv[1], int(sys.argv[2])
s = socket.socket(socket.AF_INET6 if ":" in addr else socket.AF_INET,
                  socket.SOCK_DGRAM)
s.bind((addr, port))
s.setblocking(False)
print("ready", file=sys.stderr, flush=True)
for name, flags in (("lt", 0), ("et", select.EPOLLET),
                    ("oneshot", select.EPOLLONESHOT)):
    ep = select.epoll()
    ep.register(s.fileno(), select.EPOLLIN | flags)
    print("pair", file=sys.stderr, flush=True)  # two datagrams, then
    time.sleep(0.5)                             # both have arrived
    got = ep.poll(5)
    print(name, "first", [(fd == s.fileno(), ev) for fd, ev in got])
    print(name, "again", len(ep.poll(0.1)))
    print(name, "read", len(s.recv(100)))
    print(name, "after one", len(ep.poll(0.1)))
    if flags == select.EPOLLONESHOT:
        ep.modify(s.fileno(), select.EPOLLIN | select.EPOLLONESHOT)
        print(name, "rearmed", len(ep.poll(0.1)))
    print(name, "read", len(s.recv(100)))
    try:
        s.recv(100)
    except BlockingIOError:
        print(name, "drained")
    print(name, "empty", len(ep.poll(0.1)))
    if flags == select.EPOLLET:               # each new arrival is news
        for _ in range(2):
            print("one", file=sys.stderr, flush=True)
            print(name, "new", len(ep.poll(5)), len(s.recv(100)))
    ep.close()
# Nested: an outer set watching the inner one wakes for the socket's
# datagrams; closing the socket's duplicate leaves the watch in place.
inner, outer = select.epoll(), select.epoll()
inner.register(s.fileno(), select.EPOLLIN)
outer.register(inner.fileno(), select.EPOLLIN)
print("pair", file=sys.stderr, flush=True)
time.sleep(0.5)
print("nested outer", len(outer.poll(5)), "inner", len(inner.poll(0)))
print("nested read", len(s.recv(100)), len(s.recv(100)))
print("nested empty", len(outer.poll(0.2)))
inner.unregister(s.fileno())                # gone from the set: silent
print("one", file=sys.stderr, flush=True)
time.sleep(0.3)
print("unregistered", len(inner.poll(0.2)), len(s.recv(100)))
PY
for dst in "$IP4_B" "$IP6_B"; do
  oracle "$dst" fed "$PYTHON3 $NETNS_TMP/ep.py" "$dst"
  echo "ok: epoll as the kernel's, $dst"
done

cat >"$NETNS_TMP/aio.py" <<'PY'
import asyncio, sys
mode, addr, port, n = sys.argv[1], sys.argv[2], int(sys.argv[3]), int((sys.argv + ["0"])[4])
class Echo(asyncio.DatagramProtocol):
    def connection_made(self, t): self.t = t
    def datagram_received(self, d, peer): self.t.sendto(d, peer)
class Client(asyncio.DatagramProtocol):
    def __init__(self, done): self.done, self.got = done, []
    def connection_made(self, t):
        self.t = t
        t.sendto(b"ping 0")
    def datagram_received(self, d, peer):
        self.got.append(d)
        if len(self.got) == n: self.done.set_result(self.got)
        else: self.t.sendto(b"ping %d" % len(self.got))
async def main():
    loop = asyncio.get_running_loop()
    if mode == "server":
        await loop.create_datagram_endpoint(Echo, local_addr=(addr, port))
        print("ready", file=sys.stderr, flush=True)
        await asyncio.sleep(30)
    else:
        done = loop.create_future()
        await loop.create_datagram_endpoint(lambda: Client(done),
                                            remote_addr=(addr, port))
        got = await asyncio.wait_for(done, 10)
        assert got == [b"ping %d" % i for i in range(n)], got
        print("echoed", len(got))
asyncio.run(main())
PY
# echoed LABEL SERVER...: SERVER (preloaded in B, "ready" on stderr, its
# address and port last) echoes 200 datagrams of the preloaded asyncio
# client in A, all through the ring; then it is stopped (with AF_XDP one
# process at a time holds the interface queue).
echoed() {
  local label=$1 port=$((20000 + RANDOM % 20000)) in0 out; shift
  bg "$NS_B" env LD_PRELOAD="$OSTREL_LIB" "$@" "$IP4_B" "$port" 2>"$NETNS_TMP/srv.err"
  wait_line "$NETNS_TMP/srv.err" "$BG_PID" ready || fail "$label server"
  in0=$(udp_counter "$NS_B" InDatagrams)
  out=$(preloaded "$NS_A" "$PYTHON3" "$NETNS_TMP/aio.py" client "$IP4_B" "$port" 200) ||
    fail "$label: $out"
  [ "$out" = "echoed 200" ] || fail "$label: $out"
  [ "$(udp_counter "$NS_B" InDatagrams)" -eq "$in0" ] ||
    fail "$label: the server received through the kernel"
  echo "ok: $label echo, both preloaded"
  kill "$BG_PID"; wait "$BG_PID" 2>/dev/null || true
}
cat >"$NETNS_TMP/echo.js" <<'JS'
const s = require("dgram").createSocket("udp4");
s.on("message", (m, r) => s.send(m, r.port, r.address));
s.bind(Number(process.argv[3]), process.argv[2], () => console.error("ready"));
JS
echoed asyncio "$PYTHON3" "$NETNS_TMP/aio.py" server
echoed node node "$NETNS_TMP/echo.js"

# sockperf in its epoll mode (it takes -F only with a feed file).
port=$((20000 + RANDOM % 20000))
echo "U:$IP4_B:$port" >"$NETNS_TMP/feed"
bg "$NS_B" env LD_PRELOAD="$OSTREL_LIB" sockperf sr -f "$NETNS_TMP/feed" -F epoll
wait_udp_port "$NS_B" "$port"
wait_attached "$BG_PID" || fail "sockperf sr not attached"
in0=$(udp_counter "$NS_B" InDatagrams)
out=$(in_ns "$NS_A" env LD_PRELOAD="$OSTREL_LIB" sockperf pp -f "$NETNS_TMP/feed" \
  -F epoll -t 2 -m 64 2>&1) || fail "sockperf -F epoll: $out"
grep -q "Summary: Latency is" <<<"$out" || fail "sockperf -F epoll: $out"
[ "$(udp_counter "$NS_B" InDatagrams)" -eq "$in0" ] ||
  fail "sockperf -F epoll: the server received through the kernel"
echo "ok: sockperf ping-pong, epoll multiplexer, both preloaded"
echo "epoll: passed ($FRIO_BACKEND)"
